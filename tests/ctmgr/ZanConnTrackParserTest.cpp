// What the parser logs of lines, and its stream over the table. The fuzzers compare what it finds
// in any line and table with a plain reading.
#include <gtest/gtest.h>

#include <thread>
#include <tuple>

#include "base/Patience.h"
#include "ctmgr/ZanConnTrackParser.h"
#include "tests/RecordingHost.h"

namespace {

using Asker = ReadingTurns::Asker;

struct Parser : ZanConnTrackParser {
  using ZanConnTrackParser::latestBegan;
  using ZanConnTrackParser::turns;
  using ZanConnTrackParser::ZanConnTrackParser;
};

const std::string kClient = "10.0.0.5";
const std::string kClient6 = "2001:0db8:0000:0000:0000:0000:0000:0005";

struct ZanConnTrackParserTest : testing::Test {
  RecordingHost host;
  ZanConnTrackUtils utils{host.zan};
  Parser parser{utils};
  TableFile table;

  /// "result: ports of the records".
  std::string scan(TableQuestion& question, const std::string& client = kClient) {
    std::list<ZanConnTrackFilter_s> v4;
    std::list<ZanConnTrackFilter_s> v6;
    const int result =
        parser.parseNfConnTrackFile({"", client, kClient6}, v4, v6, table.fd(), question);
    std::string text = std::to_string(result) + ":";
    v4.splice(v4.end(), v6);
    for (const auto& record : v4) text += " " + std::to_string(record.sport);
    return text;
  }
  std::string scan() {
    TableQuestion question(Asker::kEvent);
    return scan(question);
  }
};

TEST_F(ZanConnTrackParserTest, LogsEveryStepOfALine) {
  const std::string head = "ipv4 2 tcp 6 99 ESTABLISHED ";
  const std::string out = "src=10.0.0.5 dst=9.9.9.9 sport=40 dport=44 ";
  const std::string in = "src=9.9.9.9 dst=7.7.7.7 sport=44 dport=41 ";
  const std::string served = "src=10.0.0.5 dst=9.9.9.9 sport=80 dport=44 ";
  const std::string says = "0 10401 ZanConnTrackParser::parseNfConnTrackLine:";
  const std::string tcp = says + "af = ipv4 temp = 2 protocol = tcp type = 6\n\n";
  const std::string udp6 = says + "af = ipv6 temp = 10 protocol = udp type = 17\n\n";
  const std::string reverse = says + " Reverse entry, Now Parsing: ";
  const std::string found = "\n" + says + " AF=2, protocol=6, src=";
  const std::string found6 = "0 10409 ZanNetlinkMgr::Expanded ipv6 Addr " + kClient6 + "\n\n" +
                             says +
                             " AF=%hu, protocol=%d, V6src = %llX, sport=%hX, V6dest =%llX, "
                             "dport=%hX  \n";
  const std::string noMatch = "\n" + says + " No Match found\n";
  const std::string missing = says + "substring src is not found in ";
  // Line, whether it is compared with the lost address 7.7.7.7 too, result, log.
  const std::tuple<std::string, bool, int, std::string> cases[] = {
      {head + in + served, false, Parser::kMatched,
       tcp + reverse + served + found + "500000A, sport=80, dest=9090909, dport=44\n"},
      {head + out + in, true, Parser::kMatched,
       tcp + reverse + in + found + "9090909, sport=44, dest=7070707, dport=41\n"},
      {"ipv6 10 udp 17 29 src=2001:db8::5", false, Parser::kMatched, udp6 + found6},
      {head + in + in, false, Parser::kNotOfInterest, tcp + reverse + in + noMatch},
      {head + out + served, true, Parser::kNotOfInterest, tcp + reverse + served + noMatch},
      {head + in, false, Parser::kFailed, tcp + missing + "strAddrPort\n"},
      {"dst=", false, Parser::kFailed, missing + "socketLine\n"},
      {"dst=", true, Parser::kFailed, missing + "connTrackLine\n"}};
  for (const auto& [line, loss, result, log] : cases) {
    ZanConnTrackFilter_s record{};
    host.take();
    EXPECT_EQ(loss ? parser.parseNfConnTrackLine(line, kClient, "7.7.7.7", record)
                   : parser.parseNfConnTrackLine({line, kClient, kClient6}, record),
              result);
    std::string expected = "\n" + says + " Now Parsing: ";
    EXPECT_EQ(host.take(), expected.append(line).append("\n").append(log));
  }
}

TEST_F(ZanConnTrackParserTest, EveryScanSeesTheTableAsItIsNow) {
  const std::string early = tableEntry(kClient, 11) + "10.0.0.5\n";  // ends a scan
  const std::string mine = tableEntry(kClient, 12);
  const auto filler = [](std::size_t length) { return std::string(length - 1, '.') + "\n"; };
  const std::tuple<std::string, std::string, std::string> cases[] = {
      {early + filler(2000), mine + tableEntry(kClient6, 13), "1: 12 13"},
      {early, filler(9000) + mine + early, "-1: 12 11"},
      // One whole buffer has been used up, whether or not the table ended with it.
      {filler(4096 - early.size()) + early + filler(3000), mine, "1: 12"},
      {filler(4096 - early.size()) + early, mine + filler(9000) + mine, "1: 12 12"},
  };
  for (const auto& [before, now, found] : cases) {
    table.write(before);
    scan();
    table.write(now);
    EXPECT_EQ(scan(), found) << before.size() << " then " << now.size();
  }
}

TEST_F(ZanConnTrackParserTest, AReadingAnswersEveryQuestionThatCameBeforeIt) {
  TableQuestion before(Asker::kCleanUp);
  TableQuestion event(Asker::kEvent);
  event.askedAgain = true;
  table.write(tableEntry(kClient, 11));
  EXPECT_EQ(scan(event), "1: 11");
  TableQuestion after(Asker::kCleanUp);
  table.write(tableEntry(kClient, 12));
  EXPECT_EQ(scan(before), "1: 11");
  EXPECT_EQ(scan(event), "1: 11");
  EXPECT_EQ(scan(after), "1: 12");
  event.text.reset();
  EXPECT_EQ(scan(before), "1: 12") << "the text dies with the event";
}

TEST_F(ZanConnTrackParserTest, ALineThatEndsAScanEndsNoOtherOfTheSameReading) {
  TableQuestion event(Asker::kEvent);
  event.askedAgain = true;
  table.write(tableEntry(kClient, 11) + kClient + "\n" + tableEntry(kClient, 12) +
              tableEntry("10.0.0.6", 13));
  EXPECT_EQ(scan(event), "-1: 11");
  EXPECT_EQ(scan(event, "10.0.0.6"), "1: 13");
}

TEST_F(ZanConnTrackParserTest, ATableThatIsTooLongToBeKeptIsReadForEach) {
  TableQuestion event(Asker::kEvent);
  event.askedAgain = true;
  std::string filler;
  while (filler.size() <= kMostTextBytes) filler += std::string(500, '.') + "\n";
  table.write(tableEntry(kClient, 11) + filler + tableEntry(kClient, 12));
  EXPECT_EQ(scan(event), "1: 11 12");
  table.write(tableEntry(kClient, 13) + filler + tableEntry(kClient, 14));
  EXPECT_EQ(scan(event), "1: 13 14");
}

TEST_F(ZanConnTrackParserTest, WhoReadsWhileAnotherWaitsKeepsTheText) {
  const auto isKept = [this] {
    const ReadingTurn turn(parser.turns, Asker::kEvent);
    return parser.latestBegan != TableQuestion::Clock::time_point{};
  };
  table.write(tableEntry(kClient, 11));
  scan();
  EXPECT_FALSE(isKept()) << "nobody waited";
  std::vector<std::thread> cleanUps;
  {
    const ReadingTurn turn(parser.turns, Asker::kEvent);
    for (int i = 0; i < 2; ++i) {
      cleanUps.emplace_back([this] {
        TableQuestion question(Asker::kCleanUp);
        EXPECT_EQ(scan(question), "1: 11");
      });
    }
    EXPECT_TRUE(base::eventually([this] { return parser.turns.waiting() == 2; }));
  }
  for (std::thread& cleanUp : cleanUps) cleanUp.join();
  EXPECT_TRUE(isKept());
}

TEST_F(ZanConnTrackParserTest, EventsGoBeforeCleanUps) {
  std::string order;
  std::vector<std::thread> threads;
  {
    const ReadingTurn turn(parser.turns, Asker::kEvent);
    for (const auto asker : {Asker::kCleanUp, Asker::kEvent}) {
      threads.emplace_back([this, asker, &order] {
        const ReadingTurn next(parser.turns, asker);
        order += asker == Asker::kEvent ? "event " : "clean-up";
      });
      EXPECT_TRUE(base::eventually([&] { return parser.turns.waiting() == threads.size(); }));
    }
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(order, "event clean-up");
}

TEST_F(ZanConnTrackParserTest, TurnsAwayCleanUpsThatHaveNotRead) {
  parser.turnCleanUpsAway();
  host.take();
  TableQuestion question(Asker::kCleanUp);
  EXPECT_EQ(scan(question), std::to_string(Parser::kTurnedAway) + ":");
  EXPECT_EQ(host.take(), "\n");
  EXPECT_EQ(scan(), "1:");
}

TEST_F(ZanConnTrackParserTest, BindsADescriptorOnce) {
  std::list<ZanConnTrackFilter_s> out;
  host.take();
  EXPECT_EQ(parser.parseNfConnTrackFile({"", "", ""}, out, out, -1), -1);
  EXPECT_EQ(parser.setPrivilegeParams(table.fd()), 0);
  table.write("no entry");
  EXPECT_EQ(parser.parseNfConnTrackFile({"", "", "1"}, out, out, -1), -1);
  EXPECT_EQ(host.take("setP|already|File|Failed"), R"(
0 10401 ZanConnTrackParser::setPrivilegeParams
4 10401 ZanConnTrackParser::setPrivilegeParams: 9
0 10401 ZanConnTrackParser: Failed to set privilege Parameters
0 10401 ZanConnTrackParser::parseNfConnTrackFile: Failed :File open Error
0 10401 ZanConnTrackParser::setPrivilegeParams
0 10401 ZanConnTrackParser::Privileges already set
0 10401 ZanConnTrackParser::parseNfConnTrackFile: %p
0 10401 ZanConnTrackParser::parseNfConnTrackFile: Failed to parse a line error -1
)");
}

}  // namespace
