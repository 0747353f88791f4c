// Answers to readers who are slow or stand still.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <array>
#include <string>

#include "base/UniqueFd.h"
#include "refhost/zanhost/AnswerQueue.h"

namespace zanhost {
namespace {

std::array<int, 2> newPipe() {
  std::array<int, 2> ends{};
  EXPECT_EQ(pipe(ends.data()), 0);
  return ends;
}

/// Answers to a pipe, which holds less than is added, and which is read on demand.
struct AnswerQueueTest : testing::Test {
  AnswerQueueTest() { fcntl(reading.get(), F_SETFL, O_NONBLOCK); }

  /// Adds answers until there are so many bytes of them.
  std::string add(std::size_t bytes) {
    std::string sent;
    while (sent.size() < bytes) {
      const std::string line = "answer " + std::to_string(sent.size()) + "\n";
      queue.add(line);
      sent += line;
    }
    return sent;
  }

  /// All that is to be had, the loop turning meanwhile.
  std::string readAll() {
    std::string all;
    std::array<char, 4096> part;
    for (ssize_t got; (got = read(reading.get(), part.data(), part.size())) > 0; loop.turn(0)) {
      all.append(part.data(), static_cast<std::size_t>(got));
    }
    return all;
  }

  framework::EventLoop loop;
  std::array<int, 2> ends = newPipe();
  base::UniqueFd reading{ends[0]};
  base::UniqueFd writing{ends[1]};
  AnswerQueue queue{loop, writing.get()};
};

TEST_F(AnswerQueueTest, KeepsAnswersInOrderForAReaderWhoComesBack) {
  const std::string sent = add(AnswerQueue::kMostBytes / 2);
  EXPECT_TRUE(readAll() == sent);
}

TEST_F(AnswerQueueTest, LetsAReaderGoWhoLeavesTooMuchUnread) {
  const std::string sent = add(2 * AnswerQueue::kMostBytes);
  const std::string got = readAll();
  EXPECT_LT(got.size(), sent.size());
  EXPECT_TRUE(sent.starts_with(got) && got.ends_with("\n")) << "whole answers, in order";
}

}  // namespace
}  // namespace zanhost
