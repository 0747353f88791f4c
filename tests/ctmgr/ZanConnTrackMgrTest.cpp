// The manager: its life, its reaction to events, its flushes and the requests they end in.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/rtnetlink.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <thread>
#include <tuple>

#include "ctmgr/NetlinkRequest.h"
#include "ctmgr/ZanConnTrackMgr.h"
#include "tests/RecordingHost.h"

namespace {

using namespace std::chrono_literals;
using Ports = std::vector<int>;

const std::string kA = "0a:00:00:00:00:01";
const std::string kB = "0a:00:00:00:00:02";
const std::string kC = "0a:00:00:00:00:03";
constexpr int kTcp = IPPROTO_TCP;

/// The descriptor that a manager keeps to itself.
struct Utils : ZanConnTrackUtils {
  static constexpr auto kFd = &Utils::connTrackFd;
};
struct Manager : ZanConnTrackMgr {
  static auto& trackers() { return gConnTrackMgr->*(&Manager::ifTrackers); }
  static int& fd() { return gConnTrackMgr->*(&Manager::connTrackUtils).*Utils::kFd; }
};

struct ZanConnTrackMgrTest : testing::Test {
  RecordingHost host;
  TableFile table;

  ~ZanConnTrackMgrTest() override { deinit_ct_mgr(); }

  /// A manager over |table| that knows kA as 10.0.0.1 and 2001:db8::1, and kB as 10.0.0.2.
  void start() {
    ASSERT_EQ(init_ct_mgr(&host.zan), 0);
    close(std::exchange(Manager::fd(), dup(table.fd())));
    notify(RTM_NEWNEIGH, "10.0.0.1", 1);
    notify(RTM_NEWNEIGH, "2001:db8::1", 1);
    notify(RTM_NEWNEIGH, "10.0.0.2", 2);
    host.take();
  }

  void notify(std::uint8_t type, const std::string& address, std::uint8_t last) {
    const Bytes bytes = addressBytes(address);
    host.receive(1000, neighbourMessage(type, bytes.size() == 4 ? AF_INET : AF_INET6,
                                        {{NDA_DST, bytes}, {NDA_LLADDR, {10, 0, 0, 0, 0, last}}}));
  }

  void clients(const ZanDsmTextList& list) {
    host.zan.zanDsm.dispatchEvent(ZAN_DSM_EVENT_SAP_CLIENTS, &list);
  }
  void lose(const ZanDsmTextList& list) {
    host.zan.zanDsm.dispatchEvent(ZAN_DSM_EVENT_UPSTREAM_IP_LOST, &list);
  }

  /// The clients' ports in the requests so far, once there are |count|; the servers' are lower.
  Ports ports(std::size_t count) {
    Ports result;
    for (const auto& request : host.awaitRequests(count, 5s)) {
      const std::uint8_t* value = request.bytes.data() + request.bytes.size() - 12;
      result.push_back(std::max(value[0] << 8 | value[1], value[8] << 8 | value[9]));
    }
    std::sort(result.begin(), result.end());
    return result;
  }
};

TEST_F(ZanConnTrackMgrTest, ComesAndGoesInOrder) {
  EXPECT_EQ(init_ct_mgr(nullptr), -1);
  EXPECT_EQ(deinit_ct_mgr(), -1);
  const int mine = open(kConntrackTablePath, O_RDONLY | O_CLOEXEC);
  const std::string failure =
      "\n4 10409 ZanConnTrackUtils::parseNfConnTrackFile: Failed to open file " +
      std::to_string(errno) + "\n3 10409 ZanConnTrackMgr Failed to set Privilege Params";
  EXPECT_EQ(init_ct_mgr(&host.zan), 0);
  const ZanConnTrackMgr* const first = gConnTrackMgr;
  EXPECT_EQ(init_ct_mgr(&host.zan), -1);
  EXPECT_EQ(gConnTrackMgr, first);
  const std::string before = R"(
0 10409 ZanConnTrackUtils::ZanConnTrackUtils(Zan &):83
0 10409 ZanConnTrackMgr::ZanConnTrackMgr(Zan &))";
  EXPECT_EQ(host.take(), before + (mine == -1 ? failure : "") + R"(
getAllWwanInfo
property_get persist.vendor.zan.disable.sap.conntrack 0
0 10401 ZanNetlinkMgr::ZanNetlinkMgr(ZanCom &, ZanDsm &, ZanConnTrackUtils &):50
ZanNetlinkSocket 0 4
addComEventHandler 1000 0 1
0 10401 ZanConnTrackParser::ZanConnTrackParser(ZanConnTrackUtils &):39
ZanNetlinkSocket 12 273
)");
  const int fd = Manager::fd();
  EXPECT_EQ(fd == -1, mine == -1);
  close(mine);
  EXPECT_EQ(deinit_ct_mgr(), 0);
  clients({kA});
  lose({});
  EXPECT_EQ(fcntl(fd, F_GETFD), -1);
  EXPECT_EQ(host.take(), R"(
0 10409 ZanConnTrackMgr::~ZanConnTrackMgr()
0 10401 ZanNetlinkMgr::~ZanNetlinkMgr():73
~ZanNetlinkSocket 1000
0 10401 ZanConnTrackParser::~ZanConnTrackParser():55
0 10409 ZanConnTrackUtils::~ZanConnTrackUtils():110
)");
  EXPECT_EQ(init_ct_mgr(&host.zan), 0);
}

TEST_F(ZanConnTrackMgrTest, APropertySwitchesFlushesOff) {
  for (const char* property : {"", "no", "0x1"}) {
    host.property = property;
    init_ct_mgr(&host.zan);
    deinit_ct_mgr();
    EXPECT_NE(host.take("Socket 12 273"), "\n") << property;
  }
  host.property = "-2x";
  init_ct_mgr(&host.zan);
  EXPECT_EQ(host.take("Socket|ComEvent|Parser|NetlinkMgr"), "\n");
  close(std::exchange(Manager::fd(), dup(table.fd())));
  clients({kA, kB});
  clients({kB});
  lose({"7.7.7.7", "7.7.7.8", "7.7.7.9"});
  EXPECT_EQ(host.take(), R"(
0 10409 ZanConnTrackMgr::dsmEventHandler event: 27
0 10409 ZanConnTrackMgr::dsmEventHandler sapClientList Size 2
0 10409 ZanConnTrackMgr::dsmEventHandler event: 27
0 10409 ZanConnTrackMgr::dsmEventHandler sapClientList Size 1
2 10409 ZanConnTrackMgr::processDisconnectedSapClients: Disconnected client Info 0a:00:00:00:00:01
0 10409 ZanConnTrackMgr::dsmEventHandler event: 28
0 10409 ZanConnTrackMgr::dsmEventHandler Lost IpAddresses Size 3
)");
}

TEST_F(ZanConnTrackMgrTest, TracksInterfacesOnTheDefaultApn) {
  const std::list<ZanApnType> on = {ZanApnType{3}, ZAN_APN_TYPE_DEFAULT, ZAN_APN_TYPE_DEFAULT};
  host.property = "1";
  host.wwan["b"] = {0, 0, 1, 0, on, {}};
  host.wwan["c"] = {1, 1, 2, 1, {ZAN_APN_TYPE_DEFAULT}, {}};
  init_ct_mgr(&host.zan);
  EXPECT_EQ(host.take("Apn|Tracker ifaceName"), R"(
3 10409 ConnTrack Apn list 3
3 10409 ConnTrack Apn 3
3 10409 ConnTrack Apn 0
2 10409 ConnTracker Apn 0 ,Status 1
0 10409 ZanConnTrackMgr::createIfConTracker ifaceName: b
3 10409 ConnTrack Apn 0
2 10409 ConnTracker Apn 0 ,Status 1
3 10409 ConnTrack Apn list 1
3 10409 ConnTrack Apn 0
)");
  const std::string longest(108, 'x');
  const std::string created = "\n0 10409 ZanConnTrackMgr::createIfConTracker ifaceName: ";
  const std::string destroyed = "\n0 10409 ZanConnTrackMgr::destroyIfConTracker ifaceName: ";
  // Status, name, APNs and what is done.
  const std::tuple<std::uint32_t, std::string, std::list<ZanApnType>, std::string> events[] = {
      {1, "c", {ZanApnType{3}}, ""},
      {2, "c", on, ""},
      {1, "b", on, ""},
      {1, longest, on, created + longest},
      {4, "c", on, destroyed + "c"},
      {4, "b", {}, destroyed + "b"},
      {1, "b", on, created + "b"}};
  for (const auto& [status, name, apns, action] : events) {
    ZanDsmWwanStatusInfo info{status, {}, apns};
    name.copy(info.ifaceName, sizeof(info.ifaceName));
    host.zan.zanDsm.dispatchEvent(ZAN_DSM_EVENT_WWAN_STATUS, &info);
    std::string log = host.take("Tracker ifaceName");
    EXPECT_EQ(log.erase(log.size() - 1), action);
  }
  table.write("0");
  ZanIfConnTracker::idleTimerExpiryHandler(table.fd(), Manager::trackers()["b"]);
  const std::uint8_t active = 0;
  ZanConnTrackMgr::idleTimerExpHdlr(&active, gConnTrackMgr, "b");
  ZanConnTrackMgr::idleTimerExpHdlr(longest.data(), gConnTrackMgr, "c");
  deinit_ct_mgr();
  EXPECT_EQ(host.take("^(uni|i)nstall"), R"(
installListenFilters b 1   0
uninstallFilters b
uninstallFilters )" + longest + "\n");
}

TEST_F(ZanConnTrackMgrTest, RejectsWhatItCannotHandle) {
  const ZanDsmTextList list = {kA};
  const std::string nulls = "evtData:0x0 cbData:0x0 myself:0x0\n";
  ZanConnTrackMgr::dsmEventHandler(ZAN_DSM_EVENT_SAP_CLIENTS, nullptr, nullptr);
  EXPECT_EQ(host.take(), "\n3 10409 Incorrect info passed " + nulls);
  start();
  ZanConnTrackMgr::dsmEventHandler(ZAN_DSM_EVENT_SAP_CLIENTS, nullptr, gConnTrackMgr);
  ZanConnTrackMgr::dsmEventHandler(ZAN_DSM_EVENT_SAP_CLIENTS, &list, nullptr);
  ZanConnTrackMgr::dsmEventHandler(ZAN_DSM_EVENT_SAP_CLIENTS, &list, this);
  EXPECT_EQ(host.take("^[^3]"), "\n");
  ZanConnTrackMgr::dsmEventHandler(ZAN_DSM_EVENT_TETHERING_STATE, &list, gConnTrackMgr);
  EXPECT_EQ(host.take(), R"(
0 10409 ZanConnTrackMgr::dsmEventHandler event: 5
1 10409 unhandled event:5
)");
}

TEST_F(ZanConnTrackMgrTest, FlushesThoseWhoAreNoLongerOnTheList) {
  const std::string same = "2 10409 ZanConnTrackMgr::No change in sap clients\n";
  const auto gone = [](const std::string& client) {
    return "2 10409 ZanConnTrackMgr::processDisconnectedSapClients: Disconnected client Info " +
           client + "\n0 10401 ZanConnTrackParser::parseNfConnTrackFile: %p\n";
  };
  const std::pair<ZanDsmTextList, std::string> steps[] = {
      {{}, same},     {{kA, kB}, ""},       {{kA, kB}, same},
      {{kB, kA}, ""}, {{kB, kC}, gone(kA)}, {{kB, kB}, gone(kC)},
      {{kB}, ""},     {{kB, kB, kA}, ""},   {{}, gone(kB) + gone(kB) + gone(kA)}};
  start();
  for (const auto& [list, log] : steps) {
    clients(list);
    EXPECT_EQ(host.take("^2|File: %p"), "\n" + log) << testing::PrintToString(list);
  }
}

TEST_F(ZanConnTrackMgrTest, RequestsTheEntriesOfEachFlush) {
  start();
  table.write(tableEntry("2001:0db8:0000:0000:0000:0000:0000:0001", 101) +
              tableEntry("10.0.0.1", 102) + tableEntry("10.0.0.2", 103));
  clients({kA, kC});
  clients({kC});
  EXPECT_EQ(ports(2), (Ports{101, 102}));
  lose({"7.7.7.7"});  // does not request the IPv6 entries of the flush before again
  EXPECT_EQ(ports(4), (Ports{101, 102, 102, 103}));
  host.take();
  clients({});  // kC is no neighbour: everything is parsed, nothing matches
  const std::string noMatch = "0 10401 ZanConnTrackParser::parseNfConnTrackLine: No Match found\n";
  EXPECT_EQ(host.take("No Match|^[34]"), "\n" + noMatch + noMatch + noMatch);

  table.write(tableEntry("10.0.0.2", 105) + "10.0.0.2\n" + tableEntry("10.0.0.2", 106));
  clients({kB});
  clients({});
  EXPECT_EQ(host.take("^4"),
            "\n4 10409 ZanConnTrackMgr:: Failed to parse /proc/net/nf_conntrack\n");
  deinit_ct_mgr();
  EXPECT_EQ(ports(0), (Ports{101, 102, 102, 103, 105}));
}

TEST_F(ZanConnTrackMgrTest, FlushesInARowRequestEveryEntryOnce) {
  host.onSend = [] { std::this_thread::sleep_for(1ms); };
  std::string entries;
  Ports expected;
  for (int port = 100; port < 164; ++port) {
    entries += tableEntry("10.0.0.1", port, "7.7.7." + std::to_string(port));
    expected.push_back(port);
  }
  start();
  table.write(entries);
  for (const int port : expected) lose({"7.7.7." + std::to_string(port)});
  deinit_ct_mgr();  // waits for what is being sent
  EXPECT_EQ(ports(0), expected);
  std::vector<int> numbers;
  for (const auto& request : host.awaitRequests(0, 0s)) numbers.push_back(request.bytes[8]);
  std::sort(numbers.begin(), numbers.end());
  for (std::size_t i = 1; i < numbers.size(); ++i) EXPECT_EQ(numbers[i], numbers[i - 1] + 1);
}

TEST_F(ZanConnTrackMgrTest, FlushesADepartedClientThreeTimesAndForgetsIt) {
  start();
  clients({kA});
  const auto departure = RecordingHost::Clock::now();
  for (std::size_t flush = 0; flush < 3; ++flush) {
    table.write(tableEntry("10.0.0.1", 100 + static_cast<int>(flush)));
    if (flush == 0) clients({});
    const auto requests = host.awaitRequests(flush + 1, 7s);
    ASSERT_EQ(requests.size(), flush + 1);
    const std::chrono::duration<double> delay = requests.back().when - departure;
    EXPECT_NEAR(delay.count(), 5.0 * static_cast<double>(flush), 0.5);
  }
  std::this_thread::sleep_for(200ms);
  notify(RTM_DELNEIGH, "10.0.0.1", 1);
  EXPECT_NE(host.take("lost event received on unknown client"), "\n");
  EXPECT_EQ(ports(0), (Ports{100, 101, 102}));
}

TEST_F(ZanConnTrackMgrTest, GoesWhileACleanUpSleeps) {
  start();
  table.write(tableEntry("10.0.0.1", 101));
  clients({kA});
  clients({});
  EXPECT_EQ(ports(1), Ports{101});
  const auto before = RecordingHost::Clock::now();
  deinit_ct_mgr();
  EXPECT_LT(RecordingHost::Clock::now() - before, 1s);
  start();  // a manager that knows the same client
  EXPECT_EQ(host.awaitRequests(2, 5500ms).size(), 1U);
  EXPECT_EQ(host.take(), "\n");
}

TEST_F(ZanConnTrackMgrTest, SendsOneRequestPerEntry) {
  const Bytes v4 = {72, 0, 0,  0, 2,   1,   5,    0,    0,  0,   0, 0,   0, 0, 0,    0,    2, 0,
                    0,  0, 52, 0, 1,   128, 20,   0,    1,  128, 8, 0,   1, 0, 192,  0,    2, 1,
                    8,  0, 2,  0, 198, 51,  100,  7,    28, 0,   2, 128, 8, 0, 1,    0,    6, 0,
                    0,  0, 8,  0, 2,   0,   0x9c, 0x40, 0,  0,   8, 0,   3, 0, 0x01, 0xbb, 0, 0};
  const Bytes v6 = {96,   0, 0,  0,   2,    1,    5,  0,   0,  0, 0, 0,   0,  0,  0, 0,
                    10,   0, 0,  0,   76,   0,    1,  128, 44, 0, 1, 128, 20, 0,  3, 0,
                    0x20, 1, 13, 184, 0,    0,    0,  0,   0,  0, 0, 0,   0,  0,  0, 7,
                    20,   0, 4,  0,   0x20, 1,    13, 184, 0,  1, 0, 0,   0,  0,  0, 0,
                    0,    0, 0,  9,   28,   0,    2,  128, 8,  0, 1, 0,   17, 0,  0, 0,
                    8,    0, 2,  0,   0x9c, 0x40, 0,  0,   8,  0, 3, 0,   0,  53, 0, 0};
  std::list<ZanConnTrackFilter_s> tcp = {
      {AF_INET, 40000, 443, {192, 0, 2, 1, 9}, {198, 51, 100, 7, 9}, IPPROTO_TCP}};
  std::list<ZanConnTrackFilter_s> udp = {{AF_INET6, 40000, 53, {}, {}, IPPROTO_UDP}};
  std::copy_n(v6.begin() + 32, 16, udp.front().src);
  std::copy_n(v6.begin() + 52, 16, udp.front().dest);
  start();
  gConnTrackMgr->deleteV4ConntrackEntries(tcp);
  gConnTrackMgr->deleteV6ConntrackEntries(udp);
  auto requests = host.awaitRequests(2, 0s);
  ASSERT_EQ(requests.size(), 2U);
  EXPECT_EQ(requests[0].bytes[8] + 1, requests[1].bytes[8]);  // the sequence number
  for (auto& request : requests) std::fill_n(request.bytes.begin() + 8, 4, std::uint8_t{0});
  EXPECT_EQ(requests[0].bytes, v4);
  EXPECT_EQ(requests[1].bytes, v6);
  ZanConnTrackMgr::deleteConntrackEntries(gConnTrackMgr);  // two empty lists
  ZanConnTrackMgr::deleteConntrackEntries(nullptr);
  EXPECT_EQ(host.take(), R"(
0 10409 DeleteV4Entry src: 16908480, dst: 124007366 srcPrt 16540, dstPrt 47873, protonum 6 l3protonum 2
sendConntrackNetlinkMsg 1012
0 10409 DeleteV6Entry src: 3087860000, dst: 0, srcPrt 0, dstPrt 117440512, protonum -1207107296 l3protonum 256
sendConntrackNetlinkMsg 1012
4 10409 ZanConnTrackMgr:: ZanConnTrackMgr instance is NULL!
)");
}

TEST_F(ZanConnTrackMgrTest, RequestsStopAtTheirLimit) {
  const auto over = [](int end) {
    return "4 10409 addattr_l failed - exceeded maxLen: " + std::to_string(end) + " > 4096\n";
  };
  const std::string orig = over(4100) + "4 10409 nestOrig is nullptr\n";
  const std::string ip = over(4100) + "4 10409 nestIp is nullptr\n";
  const std::string proto = over(4100) + "4 10409 nestProto is nullptr\n";
  const std::string over4 = over(4100) + over(4100) + over(4100) + over(4100);
  // Length before, family, protocol, log lines, result, length after.
  using Case =
      std::tuple<std::uint32_t, std::uint8_t, std::uint8_t, std::string, int, std::uint32_t>;
  const Case cases[] = {{4093, AF_INET, kTcp, orig, 0, 4093},
                        {4092, AF_INET, kTcp, ip, 0, 4096},
                        {4088, AF_INET, kTcp, over(4104) + over(4104) + proto, 0, 4096},
                        {4072, AF_INET6, kTcp, over4, 1, 4092},
                        {4068, AF_INET, kTcp, over(4104) + over(4104) + over(4104), 1, 4096},
                        {4052, AF_INET, kTcp, over(4104), 1, 4096},
                        {4044, AF_INET, kTcp, "", 1, 4096},
                        {20, AF_UNSPEC, IPPROTO_ICMP, "", 1, 40}};
  start();
  for (const auto& [before, family, protocol, log, result, after] : cases) {
    alignas(nlmsghdr) std::array<std::uint8_t, DELETE_MSG_MAX_LEN> buffer{};
    auto* msg = static_cast<nlmsghdr*>(static_cast<void*>(buffer.data()));
    msg->nlmsg_len = before;
    ZanConnTrackMgr::ctTuple tuple{{}, {}, family, protocol, 0, 0};
    EXPECT_EQ(gConnTrackMgr->fillTupleInfo(msg, &tuple), result);
    EXPECT_EQ(msg->nlmsg_len, after);
    EXPECT_EQ(host.take(), "\n" + log) << before;
  }
}

}  // namespace
