// Commands over the control socket, from senders who are slow, wrong or gone.
#include <gmock/gmock.h>
#include <poll.h>
#include <sys/stat.h>

#include <csignal>
#include <string>
#include <vector>

#include "base/MemoryFile.h"
#include "base/UnixAddress.h"
#include "refhost/parent/ControlSocket.h"
#include "refhost/zanhost/CommandConsole.h"
#include "refhost/zanhost/ControlServer.h"

namespace zanhost {
namespace {

/// Every command is answered with |answer|.
struct ControlServerTest : testing::Test {
  ControlServerTest() { std::signal(SIGPIPE, SIG_IGN); }
  ~ControlServerTest() override { unlink(path.c_str()); }

  base::UniqueFd ask(const std::string& commands) {
    base::UniqueFd asker(::socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0));
    const base::UnixAddress address(path);
    EXPECT_EQ(connect(asker.get(), address.get(), address.length()), 0);
    EXPECT_GE(send(asker.get(), commands.data(), commands.size(), 0), 0);
    for (int turns = 0; turns < 10; ++turns) loop.turn(0);
    return asker;
  }

  /// What |asker|, who has nothing more to ask, is told until the connection ends.
  std::string answersTo(const base::UniqueFd& asker) {
    shutdown(asker.get(), SHUT_WR);
    pollfd end{asker.get(), 0, 0};  // nothing but the hang-up
    while (poll(&end, 1, 0) == 0) loop.turn(1);
    return base::readAll(asker.get()).value_or("");
  }

  std::string path = testing::TempDir() + "/control" + std::to_string(getpid());
  base::UniqueFd listening = parent::listenAt(path);
  framework::EventLoop loop;
  std::string answer = "done\n";
  int carriedOut = 0;
  ControlServer server{loop, listening.get(), [this](const Command&, AnswerQueue& asker) {
                         ++carriedOut;
                         asker.add(answer);
                       }};
};

TEST_F(ControlServerTest, EachAskerGetsItsOwnAnswers) {
  const base::UniqueFd waits = ask("wait 0.05\nclients\n");
  const base::UniqueFd wrong = ask("bogus\nclients 02:00\nstatus\n");
  const base::UniqueFd tooLong =
      ask(std::string(CommandConsole::kLongestLine + 9999, 'x') + "\nhelp\n");
  EXPECT_THAT(
      answersTo(wrong),
      testing::MatchesRegex("refused: 'bogus'[^\n]*\nrefused: clients: '02:00'[^\n]*\ndone\n"));
  EXPECT_THAT(answersTo(tooLong), testing::MatchesRegex("refused: a line of[^\n]*\ndone\n"));
  EXPECT_EQ(answersTo(waits), "done\ndone\n");
}

TEST_F(ControlServerTest, CarriesOutWhatSomebodySentWhoHasGone) {
  ask("wait 0.01\nstatus\nwait 0.01\nclients\n").reset();
  while (carriedOut < 2) loop.turn(-1);  // nobody takes this answer
  ask("").reset();
  while (carriedOut < 4) loop.turn(-1);
}

TEST_F(ControlServerTest, WhoReadsNothingHoldsNobodyUp) {
  std::vector<base::UniqueFd> stuck;
  answer = std::string(AnswerQueue::kMostBytes, 'a');
  while (stuck.size() < ControlServer::kMostConnections) stuck.push_back(ask("help\n"));
  EXPECT_EQ(answersTo(ask("")), "refused: too many connections are open\n");
  stuck.pop_back();
  answer = "done\n";
  loop.turn(1);
  EXPECT_EQ(answersTo(ask("help\n")), "done\n");
}

TEST_F(ControlServerTest, ThePathIsForItsOwnerAndIsTakenFromTheDeadAlone) {
  struct stat file {};
  EXPECT_EQ(stat(path.c_str(), &file), 0);
  EXPECT_EQ(file.st_mode, S_IFSOCK | S_IRUSR | S_IWUSR);
  EXPECT_FALSE(parent::listenAt(path).valid()) << "a host listens there";
  listening.reset();
  EXPECT_TRUE(parent::listenAt(path).valid());
}

}  // namespace
}  // namespace zanhost
