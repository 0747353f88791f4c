// The manager's life, and the trackers that it keeps for mobile-data interfaces.
#include <gmock/gmock.h>

#include <cstring>

#include "ctmgr/ZanConnTrackMgr.h"
#include "tests/PresentManager.h"
#include "tests/RecordingHost.h"

namespace {

using testing::AllOf;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::SizeIs;
using testing::StartsWith;

constexpr ZanApnType kOtherApn{3};
const std::list<ZanApnType> kDefaultApn = {kOtherApn, ZAN_APN_TYPE_DEFAULT, ZAN_APN_TYPE_DEFAULT};

struct ZanConnTrackMgrTest : testing::Test {
  RecordingHost host;

  ~ZanConnTrackMgrTest() override { PresentManager::stop(); }

  /// Starts without what flushes.
  void startWithTrackersOnly() {
    host.property = "1";
    init_ct_mgr(&host.zan);
  }
  void reportInterface(std::uint32_t status, const std::string& name,
                       const std::list<ZanApnType>& apns = kDefaultApn) {
    ZanDsmWwanStatusInfo info{status, {}, apns};
    name.copy(info.ifaceName, sizeof(info.ifaceName));
    host.zan.zanDsm.dispatchEvent(ZAN_DSM_EVENT_WWAN_STATUS, &info);
  }
  /// The trackers that there have been: each registers once with the modem.
  Lines trackers() { return host.calls("regFilteringStatusChgEvent"); }
  Lines endedTrackers() { return host.calls("deRegFilteringStatusChgEvent"); }
};

TEST_F(ZanConnTrackMgrTest, ThereIsOneAtATime) {
  EXPECT_EQ(init_ct_mgr(nullptr), -1);
  EXPECT_EQ(deinit_ct_mgr(), -1);
  EXPECT_EQ(init_ct_mgr(&host.zan), 0);
  EXPECT_EQ(init_ct_mgr(&host.zan), -1);
  EXPECT_EQ(deinit_ct_mgr(), 0);
  EXPECT_EQ(deinit_ct_mgr(), -1);
}

TEST_F(ZanConnTrackMgrTest, ConstructsItsPartsInOrder) {
  init_ct_mgr(&host.zan);
  Lines record = host.record();
  // A machine without a table has more to say.
  std::erase_if(record, [](const std::string& line) { return line[0] == '3' || line[0] == '4'; });
  EXPECT_THAT(
      record,
      ElementsAre(
          "0 10409 ZanConnTrackUtils::ZanConnTrackUtils(Zan &):83",
          StartsWith("0 10409 ZanConnTrackMgr::ZanConnTrackMgr(Zan &):"), "getAllWwanInfo",
          "property_get persist.vendor.zan.disable.sap.conntrack 0",
          "0 10401 ZanNetlinkMgr::ZanNetlinkMgr(ZanCom &, ZanDsm &, ZanConnTrackUtils &):50",
          "ZanNetlinkSocket 0 4", "addComEventHandler 1000 0 1",
          "0 10401 ZanConnTrackParser::ZanConnTrackParser(ZanConnTrackUtils &):39",
          "ZanNetlinkSocket 12 273"));
}

TEST_F(ZanConnTrackMgrTest, DestroysItsPartsInOrder) {
  init_ct_mgr(&host.zan);
  host.forget();
  deinit_ct_mgr();
  EXPECT_THAT(host.record(),
              ElementsAre(StartsWith("0 10409 ZanConnTrackMgr::~ZanConnTrackMgr():"),
                          "0 10401 ZanNetlinkMgr::~ZanNetlinkMgr():73", "~ZanNetlinkSocket 1000",
                          "0 10401 ZanConnTrackParser::~ZanConnTrackParser():55",
                          "0 10409 ZanConnTrackUtils::~ZanConnTrackUtils():110"));
}

TEST_F(ZanConnTrackMgrTest, HearsNoEventAfterItsEnd) {
  startWithTrackersOnly();
  deinit_ct_mgr();
  host.forget();
  reportInterface(ZAN_WWAN_STATUS_CONNECTED, "w9");
  EXPECT_THAT(host.record(), IsEmpty());
}

TEST_F(ZanConnTrackMgrTest, RefusesEventsWithoutDataOrForSomebodyElse) {
  startWithTrackersOnly();
  host.forget();
  const ZanDsmTextList list = {"7.7.7.7"};
  ZanConnTrackMgr::dsmEventHandler(ZAN_DSM_EVENT_UPSTREAM_IP_LOST, nullptr, gConnTrackMgr);
  ZanConnTrackMgr::dsmEventHandler(ZAN_DSM_EVENT_UPSTREAM_IP_LOST, &list, nullptr);
  ZanConnTrackMgr::dsmEventHandler(ZAN_DSM_EVENT_UPSTREAM_IP_LOST, &list, this);
  EXPECT_THAT(host.record(), AllOf(SizeIs(3), Each(StartsWith("3 10409 Incorrect info passed"))));
}

TEST_F(ZanConnTrackMgrTest, ANumberInThePropertyKeepsAwayAllThatFlushes) {
  const struct {
    const char* property;
    std::size_t sockets;
  } cases[] = {{"1", 0}, {"-2x", 0}, {"0x1", 2}, {"no", 2}, {"", 2}};
  for (const auto& test : cases) {
    host.property = test.property;
    host.forget();
    init_ct_mgr(&host.zan);
    deinit_ct_mgr();
    EXPECT_THAT(host.calls("ZanNetlinkSocket"), SizeIs(test.sockets)) << test.property;
  }
}

TEST_F(ZanConnTrackMgrTest, TracksInterfacesThatWereConnectedBefore) {
  constexpr std::int32_t kConnected = ZAN_WWAN_STATUS_CONNECTED;
  constexpr std::int32_t kDisconnected = ZAN_WWAN_STATUS_DISCONNECTED;
  host.wwan["connected"] = {0, 0, kConnected, 0, kDefaultApn, {}};
  host.wwan["disconnected"] = {0, 0, kDisconnected, 0, kDefaultApn, {}};
  host.wwan["other-apn"] = {0, 0, kConnected, 0, {kOtherApn}, {}};
  startWithTrackersOnly();
  EXPECT_THAT(trackers(), ElementsAre("regFilteringStatusChgEvent connected"));
}

TEST_F(ZanConnTrackMgrTest, TracksAnInterfaceThatConnectsOnTheDefaultApn) {
  constexpr std::uint32_t kConnecting = 2;
  startWithTrackersOnly();
  reportInterface(ZAN_WWAN_STATUS_CONNECTED, "other-apn", {kOtherApn});
  reportInterface(kConnecting, "connecting");
  EXPECT_THAT(trackers(), IsEmpty());
  reportInterface(ZAN_WWAN_STATUS_CONNECTED, "w9");
  EXPECT_THAT(trackers(), ElementsAre("regFilteringStatusChgEvent w9"));
}

TEST_F(ZanConnTrackMgrTest, EndsATrackerWhenItsInterfaceDisconnects) {
  startWithTrackersOnly();
  reportInterface(ZAN_WWAN_STATUS_CONNECTED, "w8");
  reportInterface(ZAN_WWAN_STATUS_CONNECTED, "w9");
  reportInterface(ZAN_WWAN_STATUS_DISCONNECTED, "w8", {});
  EXPECT_THAT(endedTrackers(), ElementsAre(StartsWith("deRegFilteringStatusChgEvent w8")));
  reportInterface(ZAN_WWAN_STATUS_CONNECTED, "w8");
  EXPECT_THAT(trackers(), SizeIs(3)) << "it may come back";
}

TEST_F(ZanConnTrackMgrTest, ReadsANameThatFillsItsField) {
  const std::string longest(sizeof(ZanDsmWwanStatusInfo::ifaceName), 'x');
  startWithTrackersOnly();
  reportInterface(ZAN_WWAN_STATUS_CONNECTED, longest);
  EXPECT_THAT(trackers(), ElementsAre("regFilteringStatusChgEvent " + longest));
}

TEST_F(ZanConnTrackMgrTest, AnIdleInterfaceGetsItsListenFilters) {
  const TableFile timer;
  timer.write("0\n");
  startWithTrackersOnly();
  reportInterface(ZAN_WWAN_STATUS_CONNECTED, "w9");
  ZanIfConnTracker::idleTimerExpiryHandler(timer.fd(), &PresentManager::tracker("w9"));
  EXPECT_THAT(host.calls("installListenFilters"), ElementsAre(HasSubstr("w9")));
}

TEST_F(ZanConnTrackMgrTest, ActiveAndUnknownInterfacesGetNone) {
  const std::uint8_t active = 0;
  const std::uint8_t idle = 1;
  startWithTrackersOnly();
  reportInterface(ZAN_WWAN_STATUS_CONNECTED, "w9");
  ZanConnTrackMgr::idleTimerExpHdlr(&active, gConnTrackMgr, "w9");
  ZanConnTrackMgr::idleTimerExpHdlr(&idle, gConnTrackMgr, "nobody");
  EXPECT_THAT(host.calls("installListenFilters"), IsEmpty());
}

}  // namespace
