// Which stations are reported, and when.
#include <gmock/gmock.h>
#include <libmnl/libmnl.h>
#include <linux/genetlink.h>
#include <linux/if_ether.h>
#include <linux/nl80211.h>

#include <array>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "base/Patience.h"
#include "refhost/zanhost/StationMonitor.h"

namespace zanhost {
namespace {

using testing::UnorderedElementsAre;

/// The test stands in for the kernel.
struct StationMonitorTest : testing::Test {
  /// Until the next report.
  void await() {
    for (const std::size_t before = reports.size(); reports.size() == before;) loop.turn(-1);
  }

  framework::EventLoop loop;
  std::map<std::string, std::optional<AccessPoint>> kernel{{"wlan0", AccessPoint{}},
                                                           {"wlan1", AccessPoint{}}};
  std::vector<std::set<std::string>> reports;
  StationMonitor monitor{loop, [this](const std::string& name) { return kernel.at(name); },
                         [this](const auto& stations) { reports.push_back(stations); }};
};

TEST_F(StationMonitorTest, ReportsTheStationsOfAllAccessPointsAndOfNoneThatIsGone) {
  kernel["wlan0"]->stations = {{"a", true}};
  kernel["wlan1"]->stations = {{"b", true}, {"c", true}};
  monitor.follow({"wlan0", "wlan1"});
  await();
  EXPECT_THAT(reports.back(), UnorderedElementsAre("a", "b", "c"));

  kernel["wlan0"] = std::nullopt;
  kernel["wlan1"] = AccessPoint{{}, "there is no such interface"};
  monitor.noteChange();
  await();
  EXPECT_THAT(reports.back(), UnorderedElementsAre("a")) << "the kernel could not tell of wlan0";
  kernel["wlan0"] = AccessPoint{};
  await();
  EXPECT_TRUE(reports.back().empty()) << "it is asked again without any news";
}

TEST_F(StationMonitorTest, CountsAStationWhenItIsAuthorisedOfWhichThereAreNoNews) {
  kernel["wlan0"]->stations = {{"a", true}, {"b", false}};
  monitor.follow({"wlan0"});
  await();
  EXPECT_THAT(reports.back(), UnorderedElementsAre("a"));
  kernel["wlan0"]->stations = {{"a", true}, {"b", true}};
  await();
  EXPECT_THAT(reports.back(), UnorderedElementsAre("a", "b"));
}

TEST_F(StationMonitorTest, MakesOneReportOfManyChangesAndIsNotHeldBackByEndlessOnes) {
  monitor.follow({"wlan0"});
  for (int change = 0; change < 3; ++change) monitor.noteChange();
  await();
  loop.turn(300);
  EXPECT_EQ(reports.size(), 1U);

  const base::Deadline deadline(base::kPatience);
  while (reports.size() == 1 && !deadline.over()) {
    monitor.noteChange();
    loop.turn(10);
  }
  EXPECT_EQ(reports.size(), 2U);
}

/// What the kernel says of station 02:00:00:00:43:0a, |flags| being left out where there are none.
std::optional<Stations::value_type> stationWith(std::optional<nl80211_sta_flag_update> flags) {
  alignas(nlmsghdr) std::array<char, 256> room{};
  nlmsghdr* const message = mnl_nlmsg_put_header(room.data());
  message->nlmsg_type = NLMSG_MIN_TYPE;
  mnl_nlmsg_put_extra_header(message, GENL_HDRLEN);
  constexpr std::array<std::uint8_t, ETH_ALEN> kMac{2, 0, 0, 0, 0x43, 0x0a};
  mnl_attr_put(message, NL80211_ATTR_MAC, kMac.size(), kMac.data());
  nlattr* const info = mnl_attr_nest_start(message, NL80211_ATTR_STA_INFO);
  if (flags) mnl_attr_put(message, NL80211_STA_INFO_STA_FLAGS, sizeof(*flags), &*flags);
  mnl_attr_nest_end(message, info);
  return stationOf(*message);
}

TEST(Nl80211, AStationIsAuthorisedUnlessItsDriverSaysThatItIsNot) {
  constexpr std::uint32_t kAuthorised = 1U << NL80211_STA_FLAG_AUTHORIZED;
  constexpr std::uint32_t kOther = 1U << NL80211_STA_FLAG_WME;
  const auto expect = [](bool authorised) {
    return testing::Optional(testing::Pair("02:00:00:00:43:0a", authorised));
  };
  EXPECT_THAT(stationWith(nl80211_sta_flag_update{kAuthorised | kOther, kAuthorised}),
              expect(true));
  EXPECT_THAT(stationWith(nl80211_sta_flag_update{kAuthorised | kOther, kOther}), expect(false));
  EXPECT_THAT(stationWith(nl80211_sta_flag_update{kOther, 0}), expect(true));
  EXPECT_THAT(stationWith(std::nullopt), expect(true));
}

}  // namespace
}  // namespace zanhost
