// Who counts as a hotspot client, and what one that comes back needs.
#include <gmock/gmock.h>

#include <set>
#include <string>
#include <thread>
#include <vector>

#include "refhost/framework/HostSides.h"
#include "refhost/zanhost/HotspotClients.h"

namespace zanhost {
namespace {

using namespace std::chrono_literals;
using testing::ElementsAre;
using testing::UnorderedElementsAre;
using Clock = std::chrono::steady_clock;

struct HotspotClientsTest : testing::Test {
  HotspotClientsTest() {
    const auto hear = [](ZanDsmEvent, const void* list, void* self) {
      static_cast<HotspotClientsTest*>(self)->events.push_back(
          *static_cast<const ZanDsmTextList*>(list));
    };
    zan.zanDsm.regEventCallback(ZAN_DSM_EVENT_SAP_CLIENTS, hear, this);
  }

  void type(const std::vector<std::string>& names) {
    static_cast<void>(clients.replaceTyped(names));
    clients.dispatch();
  }
  void turn(std::chrono::milliseconds limit) {
    HostSides::loopOf(zan.zanCom).turn(static_cast<int>(limit.count()));
  }

  static constexpr auto kCleanUp = 100ms;

  Zan zan;
  std::set<std::string> asked;  ///< whose neighbours the kernel was asked for last
  HotspotClients clients{zan, kCleanUp, [this](const auto& macs) { asked = macs; }};
  std::vector<ZanDsmTextList> events;
};

TEST_F(HotspotClientsTest, AreWhoWasTypedAndTheStations) {
  type({"typed", "both"});
  clients.replaceStations({"both", "station"});
  EXPECT_THAT(events.back(), UnorderedElementsAre("typed", "both", "station"));
  type({});
  EXPECT_THAT(events.back(), UnorderedElementsAre("both", "station"));
}

TEST_F(HotspotClientsTest, StationsAreNoEventWhileTheListStays) {
  type({"a", "b"});
  clients.replaceStations({"a"});
  clients.replaceStations({});
  EXPECT_THAT(events, ElementsAre(ElementsAre("a", "b")));
}

TEST_F(HotspotClientsTest, WhoComesIsAskedFor) {
  clients.replaceStations({"a", "b"});
  EXPECT_THAT(asked, ElementsAre("a", "b"));
  clients.replaceStations({"a"});
  clients.replaceStations({"a", "b"});
  EXPECT_THAT(asked, ElementsAre("b"));
}

TEST_F(HotspotClientsTest, WhoCameBackIsAskedForOnceTheCleanUpIsPast) {
  clients.replaceStations({"back", "gone", "stays"});
  const auto departure = Clock::now();
  clients.replaceStations({"stays"});
  clients.replaceStations({"back", "stays"});
  asked.clear();
  turn(60s);
  EXPECT_THAT(asked, ElementsAre("back"));
  EXPECT_GE(Clock::now() - departure, kCleanUp);
}

TEST_F(HotspotClientsTest, WhoLeavesAgainIsAskedForBetweenBothCleanUps) {
  clients.replaceStations({"a"});
  clients.replaceStations({});
  std::this_thread::sleep_for(kCleanUp / 2);
  clients.replaceStations({"a"});
  clients.replaceStations({});
  turn(60s);
  EXPECT_THAT(asked, ElementsAre("a"));
  turn(60s);
  EXPECT_THAT(asked, ElementsAre()) << "it is gone for good";
}

}  // namespace
}  // namespace zanhost
