// The manager: its life, its reaction to events, its flushes and the requests they end in.
#include <gtest/gtest.h>
#include <linux/rtnetlink.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <future>
#include <tuple>

#include "base/Patience.h"
#include "ctmgr/NetlinkRequest.h"
#include "ctmgr/ZanConnTrackMgr.h"
#include "tests/Deletions.h"
#include "tests/RecordingHost.h"
#include "tests/Sleepers.h"

namespace {

using namespace std::chrono_literals;
using Ports = std::vector<int>;

const std::string kA = "0a:00:00:00:00:01";
const std::string kB = "0a:00:00:00:00:02";
const std::string kC = "0a:00:00:00:00:03";

/// What a manager keeps to itself.
struct Utils : ZanConnTrackUtils {
  static constexpr auto kFd = &Utils::connTrackFd;
};
struct Manager : ZanConnTrackMgr {
  static auto& trackers() { return gConnTrackMgr->*(&Manager::ifTrackers); }
  static auto& gate() { return gConnTrackMgr->*(&Manager::workers); }
  static int& fd() { return gConnTrackMgr->*(&Manager::connTrackUtils).*Utils::kFd; }
};

struct ZanConnTrackMgrTest : testing::Test {
  RecordingHost host;
  TableFile table;
  std::shared_ptr<WorkerGate> gate;  ///< shared with the manager and its clean-ups

  ~ZanConnTrackMgrTest() override {
    stopAndAwaitDeletions();
    EXPECT_TRUE(cleanUpsEnd());
  }
  /// Wakes the clean-ups of a manager that has gone; whether all of them end.
  [[nodiscard]] bool cleanUpsEnd() const {
    return base::eventually([this] {
      sleepers::wake();
      return gate.use_count() <= 1;
    });
  }

  /// A manager over |table| that knows kA as 10.0.0.1 and 2001:db8::1, and kB as 10.0.0.2.
  void start() {
    ASSERT_EQ(init_ct_mgr(&host.zan), 0);
    gate = Manager::gate();
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
    for (const Bytes& request : host.awaitRequests(count)) {
      const std::uint8_t* value = request.data() + request.size() - 12;
      result.push_back(std::max(value[0] << 8 | value[1], value[8] << 8 | value[9]));
    }
    std::sort(result.begin(), result.end());
    return result;
  }
};

TEST_F(ZanConnTrackMgrTest, ComesAndGoesInOrder) {
  EXPECT_EQ(init_ct_mgr(nullptr), -1);
  EXPECT_EQ(deinit_ct_mgr(), -1);
  EXPECT_EQ(init_ct_mgr(&host.zan), 0);
  EXPECT_EQ(init_ct_mgr(&host.zan), -1);
  // Without the failures, whether the kernel has a table or not.
  EXPECT_EQ(host.take("^(0|[^0-9])"), R"(
0 10409 ZanConnTrackUtils::ZanConnTrackUtils(Zan &):83
0 10409 ZanConnTrackMgr::ZanConnTrackMgr(Zan &)
getAllWwanInfo
property_get persist.vendor.zan.disable.sap.conntrack 0
0 10401 ZanNetlinkMgr::ZanNetlinkMgr(ZanCom &, ZanDsm &, ZanConnTrackUtils &):50
ZanNetlinkSocket 0 4
addComEventHandler 1000 0 1
0 10401 ZanConnTrackParser::ZanConnTrackParser(ZanConnTrackUtils &):39
ZanNetlinkSocket 12 273
)");
  EXPECT_EQ(deinit_ct_mgr(), 0);
  clients({kA});
  lose({});
  EXPECT_EQ(host.take(), R"(
0 10409 ZanConnTrackMgr::~ZanConnTrackMgr()
0 10401 ZanNetlinkMgr::~ZanNetlinkMgr():73
~ZanNetlinkSocket 1000
0 10401 ZanConnTrackParser::~ZanConnTrackParser():55
0 10409 ZanConnTrackUtils::~ZanConnTrackUtils():110
)");
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
  const std::string created = "0 10409 ZanConnTrackMgr::createIfConTracker ifaceName: ";
  const std::string destroyed = "0 10409 ZanConnTrackMgr::destroyIfConTracker ifaceName: ";
  // Status, name, APNs and what is done.
  const std::tuple<std::uint32_t, std::string, std::list<ZanApnType>, std::string> events[] = {
      {1, "c", {ZanApnType{3}}, ""},
      {2, "c", on, ""},
      {1, "b", on, ""},
      {1, longest, on, created + longest + "\n"},
      {4, "c", on, destroyed + "c\n"},
      {4, "b", {}, destroyed + "b\n"},
      {1, "b", on, created + "b\n"}};
  for (const auto& [status, name, apns, action] : events) {
    ZanDsmWwanStatusInfo info{status, {}, apns};
    name.copy(info.ifaceName, sizeof(info.ifaceName));
    host.zan.zanDsm.dispatchEvent(ZAN_DSM_EVENT_WWAN_STATUS, &info);
    EXPECT_EQ(host.take("Tracker ifaceName"), "\n" + action);
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
  ZanConnTrackMgr::dsmEventHandler(ZAN_DSM_EVENT_SAP_CLIENTS, nullptr, nullptr);
  EXPECT_EQ(host.take(), "\n3 10409 Incorrect info passed evtData:0x0 cbData:0x0 myself:0x0\n");
  start();
  ZanConnTrackMgr::dsmEventHandler(ZAN_DSM_EVENT_SAP_CLIENTS, nullptr, gConnTrackMgr);
  ZanConnTrackMgr::dsmEventHandler(ZAN_DSM_EVENT_SAP_CLIENTS, &list, nullptr);
  ZanConnTrackMgr::dsmEventHandler(ZAN_DSM_EVENT_SAP_CLIENTS, &list, this);
  EXPECT_EQ(host.take("^[^3]"), "\n");
  ZanConnTrackMgr::dsmEventHandler(ZAN_DSM_EVENT_TETHERING_STATE, &list, gConnTrackMgr);
  EXPECT_EQ(host.take(),
            "\n0 10409 ZanConnTrackMgr::dsmEventHandler event: 5\n1 10409 unhandled event:5\n");
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
  stopAndAwaitDeletions();
  EXPECT_EQ(ports(0), (Ports{101, 102, 102, 103, 105}));
}

TEST_F(ZanConnTrackMgrTest, FlushesADepartedClientAtOnceAndAfterEachOfTwoPausesAndForgetsIt) {
  start();
  table.write(tableEntry("10.0.0.1", 100));
  clients({kA});
  clients({});
  for (const std::size_t flushes : {1U, 2U}) {
    ASSERT_EQ(sleepers::await(), 5s);
    EXPECT_EQ(host.awaitRequests(flushes).size(), flushes);
    sleepers::wake();
  }
  EXPECT_EQ(host.awaitRequests(3).size(), 3U);
  EXPECT_TRUE(base::eventually([&] {
    notify(RTM_DELNEIGH, "10.0.0.1", 1);
    return host.take("lost event received on unknown client") != "\n";
  }));
}

TEST_F(ZanConnTrackMgrTest, EndsWhileACleanUpSleepsWhichThenDoesNothing) {
  start();
  table.write(tableEntry("10.0.0.1", 100));
  clients({kA});
  clients({});
  sleepers::await();
  EXPECT_EQ(stopAndAwaitDeletions(), 0) << "who waits for a sleeper does not return";
  EXPECT_TRUE(cleanUpsEnd());
  EXPECT_EQ(host.awaitRequests(0).size(), 1U);
}

TEST_F(ZanConnTrackMgrTest, DeparturesOfOneEventShareOneReading) {
  host.whenRecorded = [this](const std::string& entry) {
    if (entry.ends_with("client Info " + kB)) table.write(tableEntry("10.0.0.2", 103));
  };
  start();
  table.write(tableEntry("10.0.0.1", 101) + tableEntry("10.0.0.2", 102));
  clients({kA, kB});
  clients({});
  EXPECT_EQ(ports(2), (Ports{101, 102})) << "B's entries as they were when A's were read";
  clients({kB});
  clients({});
  EXPECT_EQ(ports(3), (Ports{101, 102, 103})) << "another event, another reading";
}

TEST_F(ZanConnTrackMgrTest, ASendThatNeverReturnsHoldsUpNobodyElse) {
  std::promise<void> release;
  std::atomic<int> sends = 0;
  host.whenRecorded = [&, released = release.get_future().share()](const std::string& entry) {
    if (entry == "sendConntrackNetlinkMsg 1012" && sends++ == 0) released.wait();
  };
  start();
  table.write(tableEntry("10.0.0.1", 101) + tableEntry("10.0.0.1", 102) +
              tableEntry("10.0.0.2", 103));
  clients({kA, kB});
  clients({kB});
  EXPECT_TRUE(base::eventually([&] { return sends == 1; }));
  clients({});
  EXPECT_EQ(ports(1), Ports{103}) << "another worker's request";
  const auto deletions = Deletions::handle();
  EXPECT_EQ(deinit_ct_mgr(), 0);
  release.set_value();
  EXPECT_TRUE(base::eventually([&] { return deletions.expired(); }));
  EXPECT_EQ(ports(0), (Ports{101, 102, 103})) << "deletions go on to their end";
}

TEST_F(ZanConnTrackMgrTest, SendsOneRequestPerEntry) {
  const Bytes v4 = {72, 0, 0,  0, 2,   1,   5,    0,    1,  0,   0, 0,   0, 0, 0,    0,    2, 0,
                    0,  0, 52, 0, 1,   128, 20,   0,    1,  128, 8, 0,   1, 0, 192,  0,    2, 1,
                    8,  0, 2,  0, 198, 51,  100,  7,    28, 0,   2, 128, 8, 0, 1,    0,    6, 0,
                    0,  0, 8,  0, 2,   0,   0x9c, 0x40, 0,  0,   8, 0,   3, 0, 0x01, 0xbb, 0, 0};
  std::list<ZanConnTrackFilter_s> tcp = {
      {AF_INET, 40000, 443, {192, 0, 2, 1, 9}, {198, 51, 100, 7, 9}, IPPROTO_TCP}};
  std::list<ZanConnTrackFilter_s> udp = {
      {AF_INET6, 9, 53, {32, 1, 13, 184, 1, 0, 0, 0, 2, 0, 0, 0, 3}, {4, 0, 0, 0, 5}, IPPROTO_UDP}};
  start();
  gConnTrackMgr->deleteV4ConntrackEntries(tcp);
  gConnTrackMgr->deleteV6ConntrackEntries(udp);
  const std::vector<Bytes> requests = host.awaitRequests(2);
  ASSERT_EQ(requests.size(), 2U);
  EXPECT_EQ(requests[0], v4);
  EXPECT_EQ(requests[1][8], 2) << "the sequence number";
  ZanConnTrackMgr::deleteConntrackEntries(gConnTrackMgr);  // two empty lists
  ZanConnTrackMgr::deleteConntrackEntries(nullptr);
  EXPECT_EQ(host.take(), R"(
0 10409 DeleteV4Entry src: 16908480, dst: 124007366 srcPrt 16540, dstPrt 47873, protonum 6 l3protonum 2
sendConntrackNetlinkMsg 1012
0 10409 DeleteV6Entry src: 3087860000, dst: 1, srcPrt 2, dstPrt 3, protonum 4 l3protonum 5
sendConntrackNetlinkMsg 1012
4 10409 ZanConnTrackMgr:: ZanConnTrackMgr instance is NULL!
)");
}

TEST_F(ZanConnTrackMgrTest, RequestsStopAtTheirLimit) {
  const auto over = [](int end) {
    return "4 10409 addattr_l failed - exceeded maxLen: " + std::to_string(end) + " > 4096\n";
  };
  // Length before, log lines, result, length after.
  const std::tuple<std::uint32_t, std::string, int, std::uint32_t> cases[] = {
      {4093, over(4100) + "4 10409 nestOrig is nullptr\n", 0, 4093},
      {4092, over(4100) + "4 10409 nestIp is nullptr\n", 0, 4096},
      {4088, over(4104) + over(4104) + over(4100) + "4 10409 nestProto is nullptr\n", 0, 4096},
      {4052, over(4104), 1, 4096},
      {4044, "", 1, 4096}};
  start();
  for (const auto& [before, log, result, after] : cases) {
    alignas(nlmsghdr) std::array<std::uint8_t, DELETE_MSG_MAX_LEN> buffer{};
    auto* msg = static_cast<nlmsghdr*>(static_cast<void*>(buffer.data()));
    msg->nlmsg_len = before;
    ZanConnTrackMgr::ctTuple tuple{{}, {}, AF_INET, IPPROTO_TCP, 0, 0};
    EXPECT_EQ(gConnTrackMgr->fillTupleInfo(msg, &tuple), result);
    EXPECT_EQ(msg->nlmsg_len, after);
    EXPECT_EQ(host.take(), "\n" + log);
  }
}

}  // namespace
