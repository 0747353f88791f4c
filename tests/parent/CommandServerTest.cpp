// What the privileged parent does with what the plug-in's process sends it.
#include <gmock/gmock.h>
#include <sys/socket.h>

#include <array>
#include <chrono>
#include <string>
#include <vector>

#include "base/Patience.h"
#include "base/UniqueFd.h"
#include "refhost/parent/CommandServer.h"

namespace parent {
namespace {

using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

constexpr std::int32_t kTaken = 0;  ///< the acknowledgement of a piece
constexpr std::int32_t kResult = 3;

/// What is sent for one command; as it stands here, it is right.
struct Exchange {
  std::int32_t command = ZAN_CMD_IDLETIMER_ADD_1;
  std::string interface = "w9";
  std::int32_t seconds = 5;
  std::string label = "CT";
  std::string target = "IDLETIMER";
};

std::string bytesOf(std::int32_t value) {
  return {reinterpret_cast<const char*>(&value), sizeof(value)};
}

std::string bytesOf(const Exchange& exchange) {
  const std::string nul(1, '\0');
  return bytesOf(exchange.command) + exchange.interface + nul + bytesOf(exchange.seconds) +
         exchange.label + nul + exchange.target + nul + bytesOf(kTaken);
}

std::array<int, 2> connectedPair() {
  std::array<int, 2> ends{};
  EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends.data()), 0);
  return ends;
}

/// A server whose other side is the test. Every command has the result kResult.
struct CommandServerTest : testing::Test {
  void say(const std::string& bytes) const {
    send(asking.get(), bytes.data(), bytes.size(), MSG_NOSIGNAL);
  }

  /// The server's answers to |exchange|.
  std::vector<std::int32_t> ask(const Exchange& exchange) {
    say(bytesOf(exchange));
    EXPECT_TRUE(server.serveOne());
    std::array<std::int32_t, 16> answers{};
    const ssize_t got = recv(asking.get(), answers.data(), sizeof(answers), MSG_DONTWAIT);
    return {answers.begin(), answers.begin() + got / ssize_t{sizeof(std::int32_t)}};
  }

  std::array<int, 2> ends = connectedPair();
  base::UniqueFd serving{ends[0]};
  base::UniqueFd asking{ends[1]};
  std::vector<std::string> carriedOut;
  CommandServer::Execute execute = [this](ZAN_COMMANDS command, const IdleTimerRule& rule) {
    carriedOut.push_back(std::to_string(command) + ": " + rule.text());
    return kResult;
  };
  CommandServer server{serving.get(), execute, base::kPatience};
};

TEST_F(CommandServerTest, AcknowledgesEveryPieceAndAnswersWithTheResult) {
  EXPECT_THAT(ask({}), ElementsAre(kTaken, kTaken, kTaken, kTaken, kTaken, kResult));
  ask({.command = ZAN_CMD_IDLETIMER_ADD_2, .seconds = 86400});
  ask({.command = ZAN_CMD_IDLETIMER_DEL_1, .seconds = 0});
  EXPECT_THAT(carriedOut, ElementsAre("8: CT_w9, outgoing, 5 s", "9: CT_w9, incoming, 86400 s",
                                      "10: CT_w9, outgoing, 0 s"));
}

TEST_F(CommandServerTest, RefusesWhatIsMalformedAndGoesOn) {
  const std::vector<Exchange> malformed = {
      {.command = 7},    {.interface = "w/n"}, {.interface = "w23456789abcdefg"},
      {.seconds = 0},    {.seconds = 86401},   {.label = "CT_"},
      {.target = "LED"},
  };
  for (const Exchange& wrong : malformed) {
    EXPECT_THAT(ask(wrong), Contains(CommandServer::kRefused)) << bytesOf(wrong);
    EXPECT_THAT(ask({}), Contains(kResult)) << "after " << bytesOf(wrong);
  }
  EXPECT_THAT(carriedOut, SizeIs(malformed.size())) << "what came after each";
}

TEST_F(CommandServerTest, GivesUpWhoStopsInTheMiddle) {
  CommandServer impatient(serving.get(), execute, std::chrono::milliseconds(100));
  say(bytesOf(ZAN_CMD_IDLETIMER_ADD_1) + "w9");
  EXPECT_FALSE(impatient.serveOne());
  EXPECT_THAT(carriedOut, IsEmpty());
}

}  // namespace
}  // namespace parent
