// Who counts as a hotspot client, and what one that comes back needs.
#include <gmock/gmock.h>

#include <set>
#include <string>
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
    clients.dispatch(clients.replaceTyped(names));
  }
  void turn(std::chrono::milliseconds limit) {
    HostSides::loopOf(zan.zanCom).turn(static_cast<int>(limit.count()));
  }

  static constexpr auto kCleanUp = 100ms;

  Zan zan;
  int questions = 0;
  HotspotClients clients{zan, kCleanUp, [this] { ++questions; }};
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

TEST_F(HotspotClientsTest, OneThatComesBackIsAskedForOnceItsCleanUpIsPast) {
  clients.replaceStations({"a", "b"});
  const auto departure = Clock::now();
  clients.replaceStations({"b"});
  clients.replaceStations({"a", "b"});
  turn(60s);
  EXPECT_EQ(questions, 1);
  EXPECT_GE(Clock::now() - departure, kCleanUp);
}

TEST_F(HotspotClientsTest, OneThatComesBackLaterOrNeverIsNotAskedFor) {
  constexpr auto kSoonOver = 1ms;
  HotspotClients forgetful(zan, kSoonOver, [this] { ++questions; });
  forgetful.replaceStations({"a", "b"});
  forgetful.replaceStations({});
  turn(10 * kSoonOver);
  forgetful.replaceStations({"a"});
  turn(10 * kSoonOver);
  EXPECT_EQ(questions, 0);
}

}  // namespace
}  // namespace zanhost
