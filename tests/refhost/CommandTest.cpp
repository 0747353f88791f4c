#include <gtest/gtest.h>
#include <unistd.h>

#include <array>
#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include "refhost/Command.h"
#include "refhost/CommandConsole.h"

namespace {

TEST(Command, UnderstandsEveryCommand) {
  const auto clients = parseCommand("  clients 02:00:00:00:43:0A\t02:00:00:00:43:0b\r");
  ASSERT_TRUE(clients.command);
  EXPECT_EQ(std::get<ClientsCommand>(*clients.command).clients,
            (std::vector<std::string>{"02:00:00:00:43:0a", "02:00:00:00:43:0b"}));
  EXPECT_TRUE(std::get<ClientsCommand>(*parseCommand("clients").command).clients.empty());

  const auto lost = parseCommand("upstream-lost 203.0.113.1 2001:db8::1");
  ASSERT_TRUE(lost.command);
  EXPECT_EQ(std::get<UpstreamLostCommand>(*lost.command).addresses,
            (std::vector<std::string>{"203.0.113.1", "2001:db8::1"}));

  EXPECT_TRUE(std::get<WwanCommand>(*parseCommand("wwan wwan0 connected").command).connected);
  const auto apns = parseCommand("apns wwan0 0 -3");
  EXPECT_EQ(std::get<ApnsCommand>(*apns.command).apns,
            (std::list<ZanApnType>{ZAN_APN_TYPE_DEFAULT, static_cast<ZanApnType>(-3)}));
  EXPECT_FALSE(std::get<TetheringCommand>(*parseCommand("tethering off").command).on);
  EXPECT_TRUE(std::get<DormancyCommand>(*parseCommand("dormancy wwan0 dormant").command).dormant);
  const auto answer = parseCommand("modem-answer wwan0 listen -7");
  EXPECT_TRUE(std::get<ModemAnswerCommand>(*answer.command).listenFilters);
  EXPECT_EQ(std::get<ModemAnswerCommand>(*answer.command).answer, -7);

  EXPECT_FALSE(std::get<StatusCommand>(*parseCommand("status").command).json);
  EXPECT_TRUE(std::get<StatusCommand>(*parseCommand("status json").command).json);
  EXPECT_EQ(std::get<WaitCommand>(*parseCommand("wait 2.5").command).time.count(), 2500);
  EXPECT_TRUE(std::holds_alternative<HelpCommand>(*parseCommand("help").command));
  EXPECT_TRUE(std::holds_alternative<QuitCommand>(*parseCommand("quit").command));
}

TEST(Command, NamesWhatIsWrongAndWhatIsAccepted) {
  const struct {
    const char* line;
    const char* named;     ///< what the error must point at
    const char* accepted;  ///< and what it must offer
  } cases[] = {
      {"client 02:00:00:00:43:0a", "'client'", "clients, upstream-lost, wwan"},
      {"CLIENTS", "'CLIENTS'", "clients"},
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
      {"dormancy a/b dormant", "'a/b'", "interface name"},
      {"filtering-ended wwan0 1", "filtering-ended: ", "one interface"},
      {"modem-answer wwan0 listen", "modem-answer: ", "1 is success"},
      {"modem-answer wwan0 listen 99999999999", "modem-answer: ", "NUMBER"},
      {"quit now", "quit: 'now'", "takes no argument"},
  };
  for (const auto& test : cases) {
    const ParsedLine parsed = parseCommand(test.line);
    EXPECT_FALSE(parsed.command) << test.line;
    EXPECT_NE(parsed.error.find(test.named), std::string::npos)
        << test.line << ": " << parsed.error;
    EXPECT_NE(parsed.error.find(test.accepted), std::string::npos)
        << test.line << ": " << parsed.error;
  }
  for (const char* nothing : {"", "   ", "# clients"}) {
    const ParsedLine parsed = parseCommand(nothing);
    EXPECT_TRUE(!parsed.command && parsed.error.empty()) << nothing;
  }
}

TEST(CommandConsole, CarriesOutLinesInOrderAndHoldsThemBackAfterAWait) {
  using Clock = std::chrono::steady_clock;
  std::array<int, 2> ends{};
  ASSERT_EQ(pipe(ends.data()), 0);
  const UniqueFd reading(ends[0]);
  UniqueFd writing(ends[1]);
  const auto type = [&](const std::string& text) {
    ASSERT_EQ(write(writing.get(), text.data(), text.size()), static_cast<ssize_t>(text.size()));
  };

  EventLoop loop;
  std::vector<std::string> done;
  Clock::time_point lastDone;
  CommandConsole console(
      loop,
      [&](const Command& command) {
        done.push_back(std::to_string(command.index()));
        lastDone = Clock::now();
        if (std::holds_alternative<QuitCommand>(command)) loop.stop();
      },
      [&](const std::string& error) { done.push_back(error.substr(0, 6)); });
  console.readFrom(reading.get());

  const auto start = Clock::now();
  type("clients\nbogus\n\nwait 0.2\nstat");
  for (int turn = 0; turn < 20; ++turn) loop.turn(1);
  EXPECT_EQ(done, (std::vector<std::string>{"0", "'bogus", "3"})) << "one line is unfinished";
  type("us json\nquit");
  writing = UniqueFd();
  loop.run();
  EXPECT_EQ(done, (std::vector<std::string>{"0", "'bogus", "3", "2", "5"}));
  EXPECT_GE(lastDone - start, std::chrono::milliseconds(200));
}

TEST(CommandConsole, ReadsNoFurtherThanItCanKeepUp) {
  std::array<int, 2> ends{};
  ASSERT_EQ(pipe(ends.data()), 0);
  const UniqueFd reading(ends[0]);
  UniqueFd writing(ends[1]);
  EventLoop loop;
  std::size_t done = 0;
  std::vector<std::string> refused;
  CommandConsole console(
      loop, [&](const Command&) { ++done; },
      [&](const std::string& error) { refused.push_back(error); });
  console.readFrom(reading.get());

  constexpr std::size_t kCommands = 20 * CommandConsole::kMostPending;
  std::thread typist([&] {
    const auto type = [&](const std::string& text) {
      EXPECT_EQ(write(writing.get(), text.data(), text.size()), static_cast<ssize_t>(text.size()));
    };
    type(std::string(3 * CommandConsole::kLongestLine, 'x') + "\n");
    for (std::size_t i = 0; i < kCommands; ++i) type("clients\n");
    writing.reset();
  });
  const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(10);
  while (done < kCommands && std::chrono::steady_clock::now() < end) loop.turn(10);
  typist.join();
  EXPECT_EQ(done, kCommands);
  ASSERT_EQ(refused.size(), 1U) << "the long line, once";
  EXPECT_NE(refused[0].find("65536"), std::string::npos);
}

}  // namespace
