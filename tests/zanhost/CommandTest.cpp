// The host's commands: what they say, and in which order they are carried out.
#include <gmock/gmock.h>
#include <unistd.h>

#include <array>
#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include "base/Patience.h"
#include "host/Agreement.h"
#include "refhost/zanhost/Command.h"
#include "refhost/zanhost/CommandConsole.h"

namespace zanhost {
namespace {

using namespace std::string_literals;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::StartsWith;

template <typename Expected>
Expected parsed(const std::string& line) {
  return std::get<Expected>(parseCommand(line).command.value());
}

TEST(Command, UnderstandsEveryCommand) {
  EXPECT_THAT(parsed<ClientsCommand>(" clients 02:00:00:00:43:0A\t02:00:00:00:43:0b\r").clients,
              ElementsAre("02:00:00:00:43:0a", "02:00:00:00:43:0b"));
  EXPECT_THAT(parsed<ClientsCommand>("clients").clients, ElementsAre());
  EXPECT_THAT(parsed<UpstreamLostCommand>("upstream-lost 203.0.113.1 2001:db8::1").addresses,
              ElementsAre("203.0.113.1", "2001:db8::1"));
  EXPECT_EQ(parsed<WwanCommand>("wwan wwan0 connected").status, ZAN_WWAN_STATUS_CONNECTED);
  EXPECT_THAT(parsed<ApnsCommand>("apns wwan0 0 -3").apns, ElementsAre(ZAN_APN_TYPE_DEFAULT, -3));
  EXPECT_EQ(parsed<TetheringCommand>("tethering off").state, kTetheringOff);
  EXPECT_EQ(parsed<DormancyCommand>("dormancy wwan0 dormant").status, kLinkDormant);
  EXPECT_TRUE(parsed<ModemAnswerCommand>("modem-answer wwan0 listen -7").listenFilters);
  EXPECT_EQ(parsed<ModemAnswerCommand>("modem-answer wwan0 install -7").answer, -7);
  EXPECT_FALSE(parsed<StatusCommand>("status").json);
  EXPECT_TRUE(parsed<StatusCommand>("status json").json);
  for (const char* help : {"help", "?"}) parsed<HelpCommand>(help);
  for (const char* quit : {"quit", "exit"}) parsed<QuitCommand>(quit);
  EXPECT_EQ(parsed<WaitCommand>("wait 2.5").time.count(), 2500);
}

TEST(Command, NamesWhatIsWrongAndWhatIsAccepted) {
  const struct {
    std::string line;
    const char* named;     ///< what the error must point at
    const char* accepted;  ///< and what it must offer
  } cases[] = {
      {"client 02:00:00:00:43:0a", "'client'", "clients, upstream-lost, wwan"},
      {"clients 02:00:00:00:43", "'02:00:00:00:43'", "such as 02:00:00:00:43:0a"},
      {"clients 02:00:00:00:43:0a 02-00-00-00-43-0b", "'02-00-00-00-43-0b'", "MAC"},
      {"clients 02:00:00:00:43:0g", "'02:00:00:00:43:0g'", "MAC"},
      {"upstream-lost", "upstream-lost", "at least one"},
      {"upstream-lost 203.0.113.256", "'203.0.113.256'", "IPv4 or IPv6"},
      {"status xml", "'xml'", "status json"},
      {"wait", "wait", "seconds"},
      {"wait -1", "wait", "from 0"},
      {"wait 1 2", "wait", "one number"},
      {"wait 5s", "wait", "such as"},
      {"wait nan", "wait", "such as"},
      {"wait 90000", "wait", "86400"},
      {"wwan wwan0", "wwan: ", "connected"},
      {"wwan -t connected", "'-t'", "interface name"},
      {"wwan wwan0 up", "wwan: ", "disconnected"},
      {"apns", "apns: ", "interface"},
      {"apns wwan0 0 default", "'default'", "0 is the default"},
      {"tethering 1", "tethering: ", "on"},
      {"dormancy wwan0 1", "dormancy: ", "active"},
      {"dormancy a/b dormant", "'a/b'", "letters, digits, '_', '-' and '.'"},
      {"filtering-ended wwan0 1", "filtering-ended: ", "one interface"},
      {"modem-answer wwan0 listen", "modem-answer: ", "1 is success"},
      {"modem-answer wwan0 listen 99999999999", "modem-answer: ", "NUMBER"},
      {"quit now", "quit: 'now'", "takes no argument"},
      {"upstream-lost 1.1.1.1\0x"s, "'1.1.1.1?x'", "IPv4 or IPv6"},
  };
  for (const auto& test : cases) {
    const ParsedLine line = parseCommand(test.line);
    EXPECT_FALSE(line.command) << test.line;
    EXPECT_THAT(line.error, AllOf(HasSubstr(test.named), HasSubstr(test.accepted))) << test.line;
  }
  for (const char* nothing : {"", "   ", "# clients"}) {
    const ParsedLine line = parseCommand(nothing);
    EXPECT_TRUE(!line.command && line.error.empty()) << nothing;
  }
}

/// A console that reads a pipe and writes down each command's number and each error.
class CommandConsoleTest : public testing::Test {
 protected:
  CommandConsoleTest() {
    std::array<int, 2> ends{};
    EXPECT_EQ(pipe(ends.data()), 0);
    reading = base::UniqueFd(ends[0]);
    writing = base::UniqueFd(ends[1]);
    console.readFrom(reading.get());
  }
  void type(const std::string& text) const {
    EXPECT_EQ(write(writing.get(), text.data(), text.size()), static_cast<ssize_t>(text.size()));
  }
  void turnUntil(std::size_t count) {
    const auto end = std::chrono::steady_clock::now() + base::kPatience;
    while (done.size() < count && std::chrono::steady_clock::now() < end) loop.turn(10);
    EXPECT_EQ(done.size(), count);
  }

  framework::EventLoop loop;
  base::UniqueFd reading;
  base::UniqueFd writing;
  std::vector<std::string> done;
  CommandConsole console{
      loop, [this](const Command& command) { done.push_back(std::to_string(command.index())); },
      [this](const std::string& error) { done.push_back(error); }};
};

TEST_F(CommandConsoleTest, CarriesOutLinesInOrderAndHoldsThemBackAfterAWait) {
  const auto start = std::chrono::steady_clock::now();
  type("clients\nbogus\n\nwait 0.2\nstat");
  turnUntil(3);
  EXPECT_THAT(done, ElementsAre("0", StartsWith("'bogus"), "3")) << "one line is unfinished";
  type("us json\nquit");
  writing.reset();
  turnUntil(5);
  EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(200));
  EXPECT_THAT(done, ElementsAre("0", StartsWith("'bogus"), "3", "2", "5"));
}

TEST_F(CommandConsoleTest, ReadsNoFurtherThanItCanKeepUp) {
  constexpr std::size_t kCommands = 20 * CommandConsole::kMostPending;
  std::thread typist([&] {
    type(std::string(3 * CommandConsole::kLongestLine, 'x') + "\n");
    for (std::size_t i = 0; i < kCommands; ++i) type("clients\n");
    writing.reset();
  });
  turnUntil(1 + kCommands);
  typist.join();
  EXPECT_THAT(done.at(0), HasSubstr("65536"));
  EXPECT_EQ(done.at(1), "0") << "the long line was refused once";
}

}  // namespace
}  // namespace zanhost
