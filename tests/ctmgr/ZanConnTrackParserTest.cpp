// The parser's stream over the table, how readings of it are shared, and what lines log. What it
// finds in any line and table a fuzzer compares with a plain reading.
#include <gmock/gmock.h>

#include <thread>

#include "base/Patience.h"
#include "ctmgr/ZanConnTrackParser.h"
#include "tests/RecordingHost.h"

namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::SizeIs;
using Asker = ctmgr::ReadingTurns::Asker;

struct Parser : ZanConnTrackParser {
  using ZanConnTrackParser::latestBegan;
  using ZanConnTrackParser::turns;
  using ZanConnTrackParser::ZanConnTrackParser;
};

const std::string kClient = "10.0.0.5";
const std::string kClient6 = "2001:0db8:0000:0000:0000:0000:0000:0005";
const std::string kOther = "10.0.0.6";
const std::string kUnreadableLine = kClient + "\n";  ///< ends a scan

/// A line of |length| bytes that concerns nobody.
std::string filler(std::size_t length) {
  return std::string(length - 1, '.') + "\n";
}

struct ZanConnTrackParserTest : testing::Test {
  RecordingHost host;
  ZanConnTrackUtils utils{host.zan};
  Parser parser{utils};
  TableFile table;
  int result = 0;  ///< of the last scan

  /// The ports of |client|'s entries, IPv4 before IPv6.
  std::vector<int> scan(ctmgr::TableQuestion& question, const std::string& client = kClient) {
    std::list<ZanConnTrackFilter_s> v4;
    std::list<ZanConnTrackFilter_s> v6;
    result = parser.parseNfConnTrackFile({"", client, kClient6}, v4, v6, table.fd(), question);
    v4.splice(v4.end(), v6);
    std::vector<int> ports;
    for (const ZanConnTrackFilter_s& record : v4) ports.push_back(record.sport);
    return ports;
  }
  std::vector<int> scan() {
    ctmgr::TableQuestion question(Asker::kEvent);
    return scan(question);
  }
  /// A question that several flushes share.
  static ctmgr::TableQuestion sharedQuestion() {
    ctmgr::TableQuestion question(Asker::kEvent);
    question.askedAgain = true;
    return question;
  }
};

TEST_F(ZanConnTrackParserTest, EveryScanSeesTheTableAsItIsNow) {
  table.write(tableEntry(kClient, 11) + kUnreadableLine + filler(2000));
  EXPECT_THAT(scan(), ElementsAre(11)) << "what follows is not used up";
  table.write(tableEntry(kClient, 12));
  EXPECT_THAT(scan(), ElementsAre(12));
}

TEST_F(ZanConnTrackParserTest, AReadingAnswersEveryQuestionThatCameBeforeIt) {
  ctmgr::TableQuestion before(Asker::kCleanUp);
  ctmgr::TableQuestion event = sharedQuestion();
  table.write(tableEntry(kClient, 11));
  scan(event);
  table.write("");
  EXPECT_THAT(scan(before), ElementsAre(11));
  EXPECT_THAT(scan(event), ElementsAre(11));
}

TEST_F(ZanConnTrackParserTest, AReadingAnswersNoLaterQuestion) {
  ctmgr::TableQuestion event = sharedQuestion();
  table.write(tableEntry(kClient, 11));
  scan(event);
  ctmgr::TableQuestion after(Asker::kCleanUp);
  table.write(tableEntry(kClient, 12));
  EXPECT_THAT(scan(after), ElementsAre(12));
}

TEST_F(ZanConnTrackParserTest, ABrokenLineEndsNoOtherScanOfTheSameReading) {
  ctmgr::TableQuestion event = sharedQuestion();
  table.write(tableEntry(kClient, 11) + kUnreadableLine + tableEntry(kClient, 12) +
              tableEntry(kOther, 13));
  EXPECT_THAT(scan(event), ElementsAre(11));
  EXPECT_THAT(scan(event, kOther), ElementsAre(13));
}

TEST_F(ZanConnTrackParserTest, ATableThatIsTooLongToBeKeptIsReadForEach) {
  ctmgr::TableQuestion event = sharedQuestion();
  std::string most;
  while (most.size() <= ctmgr::kMostTextBytes) most += filler(500);
  table.write(tableEntry(kClient, 11) + most + tableEntry(kClient, 12));
  EXPECT_THAT(scan(event), ElementsAre(11, 12));
  table.write(tableEntry(kClient, 13) + most + tableEntry(kClient, 14));
  EXPECT_THAT(scan(event), ElementsAre(13, 14));
}

TEST_F(ZanConnTrackParserTest, WhoReadsWhileAnotherWaitsKeepsTheText) {
  table.write(tableEntry(kClient, 11));
  std::vector<std::thread> cleanUps;
  {
    const ctmgr::ReadingTurn turn(parser.turns, Asker::kEvent);
    for (int i = 0; i < 2; ++i) {
      cleanUps.emplace_back([this] {
        ctmgr::TableQuestion question(Asker::kCleanUp);
        std::list<ZanConnTrackFilter_s> v4;
        std::list<ZanConnTrackFilter_s> v6;
        parser.parseNfConnTrackFile({"", kClient, kClient6}, v4, v6, table.fd(), question);
        EXPECT_THAT(v4, SizeIs(1));
      });
    }
    EXPECT_TRUE(base::eventually([this] { return parser.turns.waiting() == 2; }));
  }
  for (std::thread& cleanUp : cleanUps) cleanUp.join();
  const ctmgr::ReadingTurn turn(parser.turns, Asker::kEvent);
  EXPECT_NE(parser.latestBegan, ctmgr::TableQuestion::Clock::time_point{});
}

TEST_F(ZanConnTrackParserTest, TurnsAwayCleanUpsThatHaveNotReadButNoEvents) {
  parser.turnCleanUpsAway();
  host.forget();
  ctmgr::TableQuestion question(Asker::kCleanUp);
  scan(question);
  EXPECT_EQ(result, Parser::kTurnedAway);
  EXPECT_THAT(host.record(), IsEmpty());
  scan();
  EXPECT_EQ(result, Parser::kMatched);
}

TEST_F(ZanConnTrackParserTest, BindsADescriptorOnce) {
  std::list<ZanConnTrackFilter_s> out;
  EXPECT_EQ(parser.parseNfConnTrackFile({"", "", ""}, out, out, -1), Parser::kFailed);
  EXPECT_THAT(host.logged("File open Error"), SizeIs(1));
  EXPECT_EQ(parser.setPrivilegeParams(table.fd()), 0);
  EXPECT_EQ(parser.setPrivilegeParams(-1), 0);
  EXPECT_THAT(host.logged("Privileges already set"), SizeIs(1));
}

TEST_F(ZanConnTrackParserTest, LogsTheStepsOfAMatchInOrder) {
  const std::string in = "src=9.9.9.9 dst=7.7.7.7 sport=44 dport=41 ";
  const std::string served = "src=10.0.0.5 dst=9.9.9.9 sport=80 dport=44 ";
  const std::string line = "ipv4 2 tcp 6 99 ESTABLISHED " + in + served;
  const std::string says = "0 10401 ZanConnTrackParser::parseNfConnTrackLine:";
  ZanConnTrackFilter_s record{};
  host.forget();
  EXPECT_EQ(parser.parseNfConnTrackLine({line, kClient, kClient6}, record), Parser::kMatched);
  EXPECT_THAT(
      host.record(),
      ElementsAre(says + " Now Parsing: " + line,
                  says + "af = ipv4 temp = 2 protocol = tcp type = 6\n",
                  says + " Reverse entry, Now Parsing: " + served,
                  says + " AF=2, protocol=6, src=500000A, sport=80, dest=9090909, dport=44"));
}

}  // namespace
