// Idle tracking of mobile-data interfaces with the host program and the kernel's own timers.
#include <sys/socket.h>

#include <csignal>

#include "lab/Kernel.h"
#include "lab/MobileLink.h"
#include "lab/Process.h"
#include "tests/live/LiveTest.h"

namespace {

using namespace std::chrono_literals;

constexpr std::size_t kRules = 4;  // two directions, two families

/// A gateway with mobile-data links that the host follows.
struct Mobile {
  explicit Mobile(std::size_t count = 1) {
    auto options = hostOptions();
    for (std::size_t i = 0; i < count; ++i) {
      links.emplace_back(network.gateway(), i);
      options.arguments.insert(options.arguments.end(), {"--wwan", links.back().name()});
    }
    host = std::make_unique<lab::HostProcess>(options, network.gateway());
  }

  /// Brings link |i| up and has the modem report it dormant; what that starts is in place then.
  void start(std::size_t i = 0) {
    links[i].connect();
    ASSERT_TRUE(awaitState(i, "connected", true));
    command("dormancy", "dormant", i);
    ASSERT_TRUE(Hotspot::within(3s, [&] { return links[i].rules() == kRules; }));
    ASSERT_TRUE(Hotspot::within(1s, [&] { return links[i].remainingSeconds().has_value(); }));
  }

  void command(const std::string& word, const std::string& rest, std::size_t i = 0) {
    host->command(word + " " + links[i].name() + " " + rest);
  }

  [[nodiscard]] nlohmann::json state(std::size_t i = 0) {
    return host->status()["interfaces"][links[i].name()];
  }
  [[nodiscard]] bool awaitState(std::size_t i, const char* key, const nlohmann::json& value) {
    return Hotspot::within(3s, [&] { return state(i)[key] == value; });
  }
  [[nodiscard]] bool awaitNothingLeft(std::size_t i = 0) {
    return Hotspot::within(
        5s, [&] { return links[i].rules() == 0 && !links[i].remainingSeconds().has_value(); });
  }

  lab::HotspotNetwork network{{.clients = 0, .ipv6Only = {}}};
  std::vector<lab::MobileLink> links;
  std::unique_ptr<lab::HostProcess> host;
};

class IdleTracking : public LiveTest {};

TEST_F(IdleTracking, FollowsAnInterfaceThroughItsLife) {
  Mobile mobile;
  const lab::MobileLink& link = mobile.links[0];
  for (const bool removed : {false, true}) {
    mobile.start();
    EXPECT_LE(*link.remainingSeconds(), 5);
    EXPECT_EQ(mobile.state()["filters"]["text1"], link.ipv4());
    EXPECT_EQ(mobile.state()["filterMode"], true);
    link.loseIpv4();
    EXPECT_TRUE(logs(*mobile.host, link.name() + " has lost " + link.ipv4()));
    EXPECT_EQ(link.rules(), kRules) << "an address is not the link";
    removed ? link.remove() : link.disconnect();
    EXPECT_TRUE(mobile.awaitState(0, "connected", false));
    EXPECT_TRUE(mobile.awaitNothingLeft());
    EXPECT_EQ(mobile.state()["filters"], nullptr);
    mobile.command("dormancy", "active");
  }
}

TEST_F(IdleTracking, IsNotMisledByRenamesBridgesAndOverlappingPrefixes) {
  Mobile mobile;
  const lab::MobileLink& link = mobile.links[0];
  const auto ip = [&](const std::string& lines) {
    lab::Process::runIpBatch(mobile.network.gateway(), lines);
  };
  mobile.start();
  ip("link add br9 type bridge\nlink set " + link.name() + " master br9\nlink set " + link.name() +
     " nomaster\naddr add " + link.ipv4() + "/30 dev " + link.name() + "\naddr del " + link.ipv4() +
     "/30 dev " + link.name() + "\n");
  std::this_thread::sleep_for(200ms);
  EXPECT_EQ(mobile.state()["connected"], true);
  EXPECT_EQ(linesWith(" has lost ", *mobile.host), 0);

  // Older kernels rename an interface only while it is down.
  const bool live = lab::kernelIsAtLeast(6, 2);
  const auto rename = [&](const std::string& from, const std::string& to) {
    ip((live ? "" : "link set " + from + " down\n") + "link set " + from + " name " + to + "\n" +
       (live ? "" : "link set " + to + " up\n"));
  };
  rename(link.name(), "away9");
  EXPECT_TRUE(mobile.awaitState(0, "connected", false));
  EXPECT_TRUE(mobile.awaitNothingLeft());
  rename("away9", link.name());
  EXPECT_TRUE(mobile.awaitState(0, "connected", true)) << "its addresses were there all along";
}

TEST_F(IdleTracking, TetheringAndTheModemTakeItDownAndBringItBack) {
  Mobile mobile;
  mobile.start();
  mobile.host->command("tethering on");
  EXPECT_TRUE(mobile.awaitNothingLeft());
  EXPECT_EQ(mobile.state()["filters"], nullptr);
  mobile.host->command("tethering off");
  EXPECT_TRUE(Hotspot::within(3s, [&] { return mobile.links[0].rules() == kRules; }));
  mobile.host->command("filtering-ended " + mobile.links[0].name());
  EXPECT_TRUE(mobile.awaitNothingLeft());
  mobile.command("modem-answer", "install -3");
  mobile.command("dormancy", "dormant");
  EXPECT_TRUE(logs(*mobile.host, "after installFilters ret: -3"));
  EXPECT_TRUE(mobile.awaitNothingLeft());
}

TEST_F(IdleTracking, AnIdleInterfaceGetsListenFiltersAndABusyOneDoesNot) {
  constexpr std::size_t kLinks = 5;  // the first idle, each other busy with packets of one kind
  Mobile mobile(kLinks);
  for (std::size_t i = 0; i < kLinks; ++i) mobile.start(i);
  const auto end = Hotspot::Clock::now() + 12s;
  while (mobile.state(0)["listenFilters"] == nullptr && Hotspot::Clock::now() < end) {
    for (const int family : {AF_INET, AF_INET6}) {
      mobile.links[family == AF_INET ? 1 : 2].sendIn(family);
      mobile.links[family == AF_INET ? 3 : 4].sendOut(family);
    }
    std::this_thread::sleep_for(200ms);
  }
  ASSERT_NE(mobile.state(0)["listenFilters"], nullptr);
  EXPECT_TRUE(Hotspot::within(1s, [&] { return mobile.links[0].remainingSeconds() > 5; }));
  EXPECT_LE(mobile.links[0].remainingSeconds(), 10);
  for (std::size_t i = 1; i < kLinks; ++i) {
    EXPECT_EQ(mobile.state(i)["listenFilters"], nullptr) << i;
    EXPECT_EQ(mobile.links[i].rules(), kRules);
  }
  mobile.links[0].disconnect();
  EXPECT_TRUE(mobile.awaitNothingLeft(0));
  EXPECT_EQ(mobile.links[1].rules(), kRules);
}

TEST_F(IdleTracking, ReportsIdleOnceAndOnTime) {
  Mobile mobile;
  const auto reports = [&mobile] {
    std::vector<Hotspot::Clock::time_point> times;
    for (const auto& line : mobile.host->log()) {
      if (line.text.find("ExpiryHandler - idleStatus = 1") == line.text.npos) continue;
      times.push_back(line.received);
    }
    return times;
  };
  mobile.start();
  ASSERT_TRUE(Hotspot::within(20s, [&] { return reports().size() == 1; }))
      << "the link's own chatter is over by then";
  const auto before = Hotspot::Clock::now();
  mobile.host->command("tethering on");
  mobile.host->command("tethering off");
  const auto started = Hotspot::Clock::now();
  ASSERT_TRUE(Hotspot::within(8s, [&] { return reports().size() == 2; }));
  std::this_thread::sleep_for(1s);
  ASSERT_EQ(reports().size(), 2U);
  EXPECT_GE(reports().back() - before, 5s);
  EXPECT_LE(reports().back() - started, 5500ms);
}

TEST_F(IdleTracking, LeavesNothingBehindHoweverTheHostEnds) {
  using Signal = std::pair<std::string, int>;
  for (const auto& [who, signal] : {Signal("nobody", 0),
                                    {"parent", SIGTERM},
                                    {"parent", SIGKILL},
                                    {"child", SIGKILL},
                                    {"all", SIGQUIT},
                                    {"all", SIGKILL}}) {
    SCOPED_TRACE(who + std::to_string(signal));
    Mobile mobile;
    mobile.start();
    const pid_t parent = mobile.host->pid();
    const pid_t child = mobile.host->status()["privileges"]["pid"].get<pid_t>();
    if (who == "nobody") mobile.host->command("quit");
    if (who != "nobody") ::kill(who == "all" ? -parent : who == "child" ? child : parent, signal);
    EXPECT_TRUE(mobile.awaitNothingLeft());
  }
}

TEST_F(IdleTracking, LivesOnWhenItsParentIsKilledInTheMiddleOfAnExchange) {
  Mobile mobile;
  mobile.links[0].connect();
  ASSERT_TRUE(mobile.awaitState(0, "connected", true));
  ::kill(mobile.host->pid(), SIGSTOP);
  mobile.command("dormancy", "dormant");
  std::this_thread::sleep_for(200ms);  // it waits for an answer by now
  ::kill(mobile.host->pid(), SIGKILL);
  EXPECT_EQ(mobile.host->status()["privileges"]["capabilities"],
            nlohmann::json::array({"CAP_NET_ADMIN"}));
  EXPECT_TRUE(logs(*mobile.host, "send_and_recv_ack "));
  EXPECT_TRUE(mobile.awaitNothingLeft());
}

}  // namespace
