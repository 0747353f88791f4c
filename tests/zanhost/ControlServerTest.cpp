// Commands over the control socket, from senders who are slow, wrong or gone.
#include <gmock/gmock.h>
#include <sys/socket.h>

#include <array>
#include <csignal>
#include <filesystem>
#include <list>
#include <string>

#include "base/UnixAddress.h"
#include "refhost/parent/ControlSocket.h"
#include "refhost/zanhost/CommandConsole.h"
#include "refhost/zanhost/ControlServer.h"

namespace zanhost {
namespace {

/// Every command is answered with |answer|.
struct ControlServerTest : testing::Test {
  ControlServerTest() { std::signal(SIGPIPE, SIG_IGN); }

  base::UniqueFd ask(const std::string& commands) {
    base::UniqueFd asker(::socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0));
    const auto address = base::UnixAddress::of(path);
    EXPECT_EQ(connect(asker.get(), address->get(), address->length), 0);
    const ssize_t sent = send(asker.get(), commands.data(), commands.size(), 0);
    EXPECT_EQ(sent, static_cast<ssize_t>(commands.size()));
    for (int turns = 0; turns < 10; ++turns) loop.turn(0);
    return asker;
  }

  /// What |asker|, who has nothing more to ask, is told until the connection ends.
  std::string answersTo(const base::UniqueFd& asker) {
    shutdown(asker.get(), SHUT_WR);
    std::string all;
    std::array<char, 65536> part;
    for (ssize_t got = -1; got != 0; loop.turn(1)) {
      got = recv(asker.get(), part.data(), part.size(), 0);
      if (got > 0) all.append(part.data(), static_cast<std::size_t>(got));
    }
    return all;
  }

  std::string path = testing::TempDir() + "/control" + std::to_string(getpid());
  parent::ControlSocket socket{path};
  base::UniqueFd listening = socket.serve();
  framework::EventLoop loop;
  std::string answer = "done\n";
  ControlServer server{loop, listening.get(),
                       [this](const Command&, AnswerQueue& asker) { asker.add(answer); }};
};

TEST_F(ControlServerTest, EachAskerGetsItsOwnAnswers) {
  const base::UniqueFd waits = ask("wait 0.05\nclients\n");
  const base::UniqueFd wrong = ask("bogus\nstatus\n");
  const base::UniqueFd tooLong =
      ask(std::string(CommandConsole::kLongestLine + 9999, 'x') + "\nhelp\n");
  EXPECT_THAT(answersTo(wrong), testing::MatchesRegex("refused: 'bogus'[^\n]*\ndone\n"));
  EXPECT_THAT(answersTo(tooLong), testing::MatchesRegex("refused: a line of[^\n]*\ndone\n"));
  EXPECT_EQ(answersTo(waits), "done\ndone\n");
}

TEST_F(ControlServerTest, WhoReadsNothingHoldsNobodyUpAndIsLetGo) {
  std::list<base::UniqueFd> stuck;
  answer = std::string(2 * AnswerQueue::kMostBytes, 'a');
  while (stuck.size() < ControlServer::kMostConnections) stuck.push_back(ask("help\n"));
  EXPECT_THAT(answersTo(ask("")), testing::StartsWith("refused: too many"));
  EXPECT_EQ(send(stuck.front().get(), "help\n", 5, 0), 5);
  answer = "done\n";
  loop.turn(1);
  EXPECT_EQ(answersTo(ask("help\n")), "done\n");
}

TEST_F(ControlServerTest, ThePathIsForItsOwnerAndIsTakenFromTheDeadAlone) {
  namespace fs = std::filesystem;
  EXPECT_EQ(fs::status(path).permissions(), fs::perms::owner_read | fs::perms::owner_write);
  EXPECT_TRUE(parent::ControlSocket(path).failed()) << "a host listens there";
  EXPECT_TRUE(parent::ControlSocket("/etc/passwd").failed());
  listening.reset();
  EXPECT_FALSE(parent::ControlSocket(path).failed());
  EXPECT_FALSE(fs::exists(path)) << "it went with its owner";
}

}  // namespace
}  // namespace zanhost
