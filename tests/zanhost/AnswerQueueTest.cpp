// Answers to readers who are slow, stand still or have gone.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <unistd.h>

#include <array>
#include <csignal>
#include <cstdlib>
#include <functional>
#include <memory>
#include <string>
#include <thread>

#include "base/UniqueFd.h"
#include "host/ZanMsg.h"
#include "refhost/zanhost/AnswerQueue.h"

namespace zanhost {
namespace {

/// What a pipe holds.
constexpr std::size_t kPipe = 65536;

/// Counts log lines.
class CountingLog final : public ZanMsg {
 public:
  CountingLog() { zan_log_class_ptr = this; }
  ~CountingLog() { zan_log_class_ptr = nullptr; }
  CountingLog(const CountingLog&) = delete;
  CountingLog& operator=(const CountingLog&) = delete;

  void setThreshold(int /*level*/) override {}
  [[nodiscard]] bool enabled(int /*level*/) const override { return true; }
  void log(int /*level*/, int /*module*/, const char* /*format*/, ...) override { ++lines; }
  int lines = 0;
};

/// Answers to a pipe that is read on demand.
class AnswerQueueTest : public testing::Test {
 protected:
  AnswerQueueTest() {
    std::array<int, 2> ends{};
    EXPECT_EQ(pipe(ends.data()), 0);
    reading = base::UniqueFd(ends[0]);
    writing = base::UniqueFd(ends[1]);
    fcntl(reading.get(), F_SETFL, O_NONBLOCK);
    queue = std::make_unique<AnswerQueue>(loop, writing.get());
  }

  /// Adds answers until there are so many bytes of them.
  void add(std::size_t bytes) {
    while (sent.size() < bytes) {
      const std::string line = "answer " + std::to_string(sent.size()) + "\n";
      queue->add(line);
      sent += line;
    }
  }

  /// What is to be had, |afterEach| read.
  std::string read(const std::function<void()>& afterEach) const {
    std::string all;
    std::array<char, 4096> part;
    for (ssize_t got; (got = ::read(reading.get(), part.data(), part.size())) > 0; afterEach()) {
      all.append(part.data(), static_cast<std::size_t>(got));
    }
    return all;
  }
  std::string readInTurns() {
    return read([this] { loop.turn(0); });
  }

  framework::EventLoop loop;
  base::UniqueFd reading;
  base::UniqueFd writing;
  std::unique_ptr<AnswerQueue> queue;
  std::string sent;
};

TEST_F(AnswerQueueTest, KeepsAnswersInOrderForAReaderWhoComesBack) {
  add(AnswerQueue::kMostBytes / 2);
  EXPECT_TRUE(readInTurns() == sent);
  queue->add("next\n");
  EXPECT_EQ(readInTurns(), "next\n");
}

TEST_F(AnswerQueueTest, LetsAReaderGoWhoLeavesTooMuchUnreadAndSaysSoOnce) {
  CountingLog log;
  add(AnswerQueue::kMostBytes);
  EXPECT_EQ(log.lines, 0);
  add(AnswerQueue::kMostBytes + 2 * kPipe);
  EXPECT_EQ(log.lines, 1);
  const std::string got = readInTurns();
  EXPECT_GT(got.size(), AnswerQueue::kMostBytes);
  EXPECT_TRUE(sent.starts_with(got) && got.ends_with("\n")) << "whole answers, in order";
  queue->add("dropped\n");
  EXPECT_EQ(readInTurns(), "");
}

TEST_F(AnswerQueueTest, DropsEverythingWhenTheReaderHasGone) {
  CountingLog log;
  std::signal(SIGPIPE, SIG_IGN);
  add(AnswerQueue::kMostBytes / 2);
  reading.reset();
  loop.turn(0);
  queue->add("dropped\n");
  EXPECT_EQ(log.lines, 1);
}

TEST_F(AnswerQueueTest, WritesWhatIsLeftAtTheEndToAReaderWhoGoesOnReading) {
  add(2 * kPipe);
  fcntl(reading.get(), F_SETFL, 0);
  std::string got;
  std::thread reader([&] { got = read([] {}); });
  queue.reset();
  writing.reset();
  reader.join();
  EXPECT_TRUE(got == sent);
}

TEST_F(AnswerQueueTest, DoesNotWaitForATerminalThatNobodyReads) {
  const base::UniqueFd screen(posix_openpt(O_RDWR | O_NOCTTY));
  ASSERT_TRUE(grantpt(screen.get()) == 0 && unlockpt(screen.get()) == 0);
  const base::UniqueFd terminal(open(ptsname(screen.get()), O_RDWR | O_NOCTTY));
  ASSERT_TRUE(terminal.valid());
  queue = std::make_unique<AnswerQueue>(loop, terminal.get());
  add(AnswerQueue::kMostBytes / 2);
  loop.turn(0);
  queue.reset();
}

}  // namespace
}  // namespace zanhost
