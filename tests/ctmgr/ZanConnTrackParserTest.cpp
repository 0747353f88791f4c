// What the parser makes of single lines and of whole tables.
#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <thread>

#include "ctmgr/ZanConnTrackParser.h"
#include "tests/RecordingHost.h"

namespace {

using Texts = std::vector<std::string>;

constexpr int kYes = ZanConnTrackParser::kMatched;
constexpr int kNo = ZanConnTrackParser::kNotOfInterest;
constexpr int kBroken = ZanConnTrackParser::kFailed;

const std::string kClient = "10.0.0.5";
const std::string kClient6 = "2001:0db8:0000:0000:0000:0000:0000:0005";
const std::string kHead = "ipv4 2 tcp 6 99 ESTABLISHED ";
const std::string kHead6 = "ipv6 10 udp 17 29 ";
const std::string kOut = "src=10.0.0.5 dst=9.9.9.9 sport=40 dport=44 ";
const std::string kIn = "src=9.9.9.9 dst=7.7.7.7 sport=44 dport=41 ";
const std::string kServed = "src=10.0.0.5 dst=9.9.9.9 sport=80 dport=44 ";
const std::string kLong(60, '1');

/// "protocol source.port > destination.port" of a record that a line leaves alone.
const std::string kSame = "1 1.0.0.0.1 > 1.0.0.0.1";

struct LineCase {
  std::string line;
  int result;
  std::string record = kSame;
  std::string client = kClient;
  std::string other = "7.7.7.7";  // the lost address, or the IPv6 address of the client
};

const LineCase kClientLines[] = {
    {kHead + kOut + kIn + "use=2\n", kYes, "6 10.0.0.5.40 > 9.9.9.9.44"},
    {"ipv4 2 udp 17 9 " + kIn + kServed, kYes, "17 10.0.0.5.80 > 9.9.9.9.44"},
    {kHead + kIn + kIn, kNo},
    // IPv6: the line's text may be compressed, the client's may not.
    {kHead6 + "src=2001:DB8::5 dst=::1 sport=5", kYes, "17 2001:db8::5.5 > ::1.0", "", kClient6},
    {kHead6 + "src=::1 dst=::2 src=2001:db8::5 dst=::1", kYes, "17 2001:db8::5.0 > ::1.0", "",
     kClient6},
    {kHead6 + "src=2001:db8::5 src=::1", kNo, kSame, "", "2001:db8::5"},
    // Families and protocols, as whole tokens.
    {kHead6 + kOut + kIn, kNo},
    {"ipv4 2 icmp 1 29 " + kOut + kIn, kNo},
    {"ipv4 2 tcpx 6 9 " + kOut + kIn, kNo},
    {"ipv44 2 tcp 6 9 " + kOut + kIn, kNo},
    {kLong + " 2 tcp 6 9 " + kOut + kIn, kNo},
    {"ipv4 2 tcp " + kLong + " 9 " + kOut + kIn, kYes, "6 10.0.0.5.40 > 9.9.9.9.44"},
    // What must be there, and what need not.
    {"ipv5 2 icmp 1 9 dst=10.0.0.5", kBroken},
    {kHead + kIn, kBroken},
    {kHead + "src=" + kOut, kYes, "6 10.0.0.5.40 > 9.9.9.9.44"},
    {kHead + "src=10.0.0.5 dst=9.9.9.9 dport=44 " + kIn, kYes, "6 10.0.0.5.0 > 9.9.9.9.0"},
    {kHead + kIn + "src=10.0.0.5 use=2", kYes, "6 10.0.0.5.44 > 0.0.0.0.41"},
    // Addresses compare whole, whichever of the client's it is.
    {kHead + "src=110.0.0.5 dst=9.9.9.9 sport=1 dport=2 " + kIn, kNo},
    {kHead + kOut + kIn, kNo, kSame, "", ""},
    {kHead + kOut + kIn, kYes, "6 10.0.0.5.40 > 9.9.9.9.44", "", kClient},
    // Damaged addresses read as zero, ports as far as 16 bits go.
    {kHead + "src=10.0.0.999 dst=9.9.9.9 sport=1 dport=2 " + kIn, kNo},
    {kHead + "src=10.0.0.5 dst=" + kLong + " sport=1 dport=2", kYes, "6 10.0.0.5.0 > 0.0.0.0.0"},
    {kHead + "src=" + kLong + " dst=10.0.0.5 " + kServed, kYes, "6 10.0.0.5.80 > 9.9.9.9.44"},
    {kHead + "src=10.0.0.5 dst=:: sport=65536 dport=70000", kYes, "6 10.0.0.5.0 > 0.0.0.0.4464"},
};

const LineCase kLossLines[] = {
    {kHead + kOut + kIn + "use=2\n", kYes, "6 9.9.9.9.44 > 7.7.7.7.41"},
    {"ipv4 2 udp 17 9 " + kOut + "src=9.9.9.9 dst=7.7.7.7", kYes, "17 9.9.9.9.40 > 7.7.7.7.44"},
    {kHead + "src=10.0.0.50 dst=9.9.9.9 sport=1 dport=2", kNo},
    {kHead + kOut + "src=9.9.9.9 dst=7.7.7.77 sport=1 dport=2", kNo},
    // The lost address compares as it is written.
    {kHead + kOut + "src=9.9.9.9 dst=7.7.7.07", kYes, "6 9.9.9.9.40 > 0.0.0.0.44", kClient,
     "7.7.7.07"},
    {kHead + kOut + "src=", kYes, "6 0.0.0.0.40 > 0.0.0.0.44", kClient, ""},
    {kHead + kIn + kServed, kNo},
    {kHead6 + kOut + kIn, kNo},
    {"ipv4 2 icmp 1 29 " + kOut + kIn, kNo},
    {"ipv4 2 icmp 1 29 dst=10.0.0.5", kBroken},
    {kHead + kOut, kBroken},
};

struct ZanConnTrackParserTest : testing::Test {
  RecordingHost host;
  ZanConnTrackUtils utils{host.zan};
  ZanConnTrackParser parser{utils};
  TableFile table;

  void expect(const LineCase& line, bool loss) {
    ZanConnTrackFilter_s record{AF_INET, 1, 1, {1}, {1}, 1};
    const int result =
        loss ? parser.parseNfConnTrackLine(line.line, line.client, line.other, record)
             : parser.parseNfConnTrackLine({line.line, line.client, line.other}, record);
    EXPECT_EQ(result, line.result) << line.line;
    char source[INET6_ADDRSTRLEN] = {};
    char destination[INET6_ADDRSTRLEN] = {};
    inet_ntop(record.af, record.src, source, sizeof(source));
    inet_ntop(record.af, record.dest, destination, sizeof(destination));
    const std::string text = std::to_string(record.protocol) + " " + source + "." +
                             std::to_string(record.sport) + " > " + destination + "." +
                             std::to_string(record.dport);
    EXPECT_EQ(text, line.record) << line.line;
  }

  /// "result: ports of the IPv4 records, ports of the IPv6 records".
  std::string scan(const std::string& ipv4 = kClient, const std::string& ipv6 = kClient6) {
    std::list<ZanConnTrackFilter_s> v4;
    std::list<ZanConnTrackFilter_s> v6;
    const int result = parser.parseNfConnTrackFile({"", ipv4, ipv6}, v4, v6, table.fd());
    std::string text = std::to_string(result) + ":";
    for (const auto& record : v4) text += " " + std::to_string(record.sport);
    text += ",";
    for (const auto& record : v6) text += " " + std::to_string(record.sport);
    return text;
  }
};

TEST_F(ZanConnTrackParserTest, FindsTheTupleInALine) {
  for (const LineCase& line : kClientLines) expect(line, false);
  for (const LineCase& line : kLossLines) expect(line, true);
}

TEST_F(ZanConnTrackParserTest, LogsEveryStepOfALine) {
  host.take();
  expect({kHead + kIn + kServed, kYes, "6 10.0.0.5.80 > 9.9.9.9.44"}, false);
  EXPECT_EQ(host.take(), "\n0 10401 ZanConnTrackParser::parseNfConnTrackLine: Now Parsing: " +
                             kHead + kIn + kServed + R"(
0 10401 ZanConnTrackParser::parseNfConnTrackLine:af = ipv4 temp = 2 protocol = tcp type = 6

0 10401 ZanConnTrackParser::parseNfConnTrackLine: Reverse entry, Now Parsing: )" +
                             kServed + R"(
0 10401 ZanConnTrackParser::parseNfConnTrackLine: AF=2, protocol=6, src=500000A, sport=80, dest=9090909, dport=44
)");
  expect({kHead6 + "src=2001:db8::5", kYes, "17 2001:db8::5.0 > ::.0", "", kClient6}, false);
  expect({kHead + kIn, kBroken}, false);
  expect({"dst=", kBroken}, false);
  expect({"dst=", kBroken}, true);
  expect({kHead + kOut + kServed, kNo}, true);
  EXPECT_EQ(host.take("Addr|Line: (R|A|No M)|Line:s"), R"(
0 10409 ZanNetlinkMgr::Expanded ipv6 Addr 2001:0db8:0000:0000:0000:0000:0000:0005

0 10401 ZanConnTrackParser::parseNfConnTrackLine: AF=%hu, protocol=%d, V6src = %llX, sport=%hX, V6dest =%llX, dport=%hX  
0 10401 ZanConnTrackParser::parseNfConnTrackLine:substring src is not found in strAddrPort
0 10401 ZanConnTrackParser::parseNfConnTrackLine:substring src is not found in socketLine
0 10401 ZanConnTrackParser::parseNfConnTrackLine:substring src is not found in connTrackLine
0 10401 ZanConnTrackParser::parseNfConnTrackLine: Reverse entry, Now Parsing: )" +
                                                           kServed + R"(
0 10401 ZanConnTrackParser::parseNfConnTrackLine: No Match found
)");
}

TEST_F(ZanConnTrackParserTest, ScansForTheEntriesOfAClient) {
  const std::string mine = tableEntry(kClient, 12);
  const std::string fits = mine.substr(0, mine.size() - 1) + std::string(513 - mine.size(), '.');
  const std::string mine6 = tableEntry(kClient6, 13);
  const std::tuple<std::string, std::string, std::string, std::string> cases[] = {
      {mine + mine6 + mine + tableEntry("10.0.0.50", 14), kClient, kClient6, "1: 12 12, 13"},
      {mine + mine6, "", kClient6, "1:, 13"},
      // Only lines that mention the client are parsed, all of them when one of its texts is empty.
      {"no entry\n" + mine, kClient, kClient6, "1: 12,"},
      {mine + "no entry 10.0.0.50\n" + mine, kClient, kClient6, "-1: 12,"},
      {mine + "no entry\n" + mine, kClient, "", "-1: 12,"},
      {mine6 + "no entry\n" + mine6, "", kClient6, "-1:, 13"},
      // What stands behind 512 characters of a line is a line of its own.
      {fits + "10.0.0.5\n" + mine, kClient, kClient6, "-1: 12,"},
      {fits + "more\n" + mine, kClient, kClient6, "1: 12 12,"},
      {std::string(512, '.') + mine, kClient, kClient6, "1: 12,"},
      {std::string(511, '.') + mine, kClient, kClient6, "1:,"},
  };
  for (const auto& [text, ipv4, ipv6, found] : cases) {
    table.write(text);
    EXPECT_EQ(scan(ipv4, ipv6), found) << text;
  }
}

TEST_F(ZanConnTrackParserTest, ScansForEntriesBehindLostAddresses) {
  const std::string a = tableEntry(kClient, 11, "7.7.7.1");
  const std::string b = tableEntry("10.0.0.12", 12, "7.7.7.2");
  std::tuple<std::string, Texts, Texts, int, std::size_t> cases[] = {
      {a + b, {"10.0.0.12", kClient}, {"7.7.7.2", "7.7.7.1"}, 1, 2},
      {a + b, {kClient}, {"7.7.7.1", "7.7.7.1", "7.7.7.2"}, 1, 2},
      // The first text that occurs in a line is the only client the line is compared with.
      {a + b, {"10.0.0.1", "10.0.0.12"}, {"7.7.7.2"}, 1, 0},
      {a + b, {"10.0.0.12", "10.0.0.1"}, {"7.7.7.2"}, 1, 1},
      {a, {"", kClient}, {"7.7.7.1"}, 1, 0},
      // Without anything to compare with, no line is parsed.
      {"10.0.0.5\n" + a, {}, {"7.7.7.1"}, 1, 0},
      {"10.0.0.5\n" + a, {kClient}, {}, 1, 0},
      {"no entry\n" + a, {kClient}, {"7.7.7.1"}, 1, 1},
      {a + "10.0.0.5\n" + a, {kClient}, {"7.7.7.1"}, -1, 1},
      {tableEntry(kClient6, 14) + a, {kClient6}, {"7.7.7.7"}, 1, 0},
  };
  for (auto& [text, clients, lost, result, found] : cases) {
    table.write(text);
    std::list<ZanConnTrackFilter_s> out(1);
    EXPECT_EQ(parser.parseNfConnTrackFile(clients, lost, out, table.fd()), result) << text;
    EXPECT_EQ(out.size(), 1 + found) << text << testing::PrintToString(clients);
  }
}

TEST_F(ZanConnTrackParserTest, EveryScanSeesTheTableAsItIsNow) {
  const std::string early = tableEntry(kClient, 11) + "10.0.0.5\n";  // ends a scan
  const std::string mine = tableEntry(kClient, 12);
  const auto filler = [](std::size_t length) {
    std::string text(length, '.');
    for (std::size_t i = 99; i < length; i += 100) text[i] = '\n';
    text.back() = '\n';
    return text;
  };
  const std::tuple<std::string, std::string, std::string> cases[] = {
      {early + filler(2000), mine, "1: 12,"},
      {early, filler(9000) + mine + early, "-1: 12 11,"},
      // One whole buffer has been used up, whether or not the table ended with it.
      {filler(4096 - early.size()) + early + filler(3000), mine, "1: 12,"},
      {filler(4096 - early.size()) + early, mine + filler(9000) + mine, "1: 12 12,"},
      {filler(4096), "", "1:,"},
  };
  for (const auto& [before, now, found] : cases) {
    table.write(before);
    scan();
    table.write(now);
    EXPECT_EQ(scan(), found) << before.size() << " then " << now.size();
  }
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

TEST_F(ZanConnTrackParserTest, ScansOfSeveralThreadsTakeTurns) {
  table.write(tableEntry(kClient, 11) + std::string(9000, '.') + "\n" + tableEntry(kClient, 12));
  const auto scanOften = [this] {
    for (int i = 0; i < 50; ++i) EXPECT_EQ(scan(), "1: 11 12,");
  };
  std::thread other(scanOften);
  scanOften();
  other.join();
}

}  // namespace
