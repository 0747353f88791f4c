// Idle tracking of mobile-data interfaces with the host program and the kernel's own timers.
#include <sys/socket.h>

#include <csignal>

#include "lab/Kernel.h"
#include "lab/MobileLink.h"
#include "lab/Process.h"
#include "tests/live/LiveTest.h"

namespace {

using namespace std::chrono_literals;
using base::eventually;
using testing::StartsWith;

constexpr std::size_t kRules = 4;  // two directions, two families

/// The kernel lets a timer run in ticks, the first of which may be all but over when it begins.
constexpr auto kTick = 10ms;

/// A gateway with a mobile-data link that the host follows.
struct Mobile {
  /// Brings the link up and has the modem report it dormant; what that starts is in place then.
  void start() {
    link.connect();
    ASSERT_TRUE(awaitConnected(true));
    EXPECT_EQ(command("dormancy", "dormant"), "dormancy: " + link.name() + " is dormant");
    ASSERT_TRUE(awaitRules());
    ASSERT_TRUE(eventually([&] { return link.remainingSeconds().has_value(); }));
  }

  std::string command(const std::string& word, const std::string& rest = {}) {
    return host.command(word + " " + link.name() + " " + rest);
  }

  [[nodiscard]] lab::HostState::Interface state() { return host.status().interface(link.name()); }
  [[nodiscard]] bool awaitConnected(bool connected) {
    return eventually([&] { return state().connected == connected; });
  }
  [[nodiscard]] bool awaitRules() {
    return eventually([&] { return link.rules() == kRules; });
  }
  [[nodiscard]] bool awaitNothingLeft() {
    return eventually([&] { return link.rules() == 0 && !link.remainingSeconds().has_value(); });
  }
  [[nodiscard]] std::ptrdiff_t idleReports() const {
    return linesWith("ExpiryHandler - idleStatus = 1", host);
  }

  lab::HotspotNetwork network{{.clients = 0, .ipv6Only = {}}};
  lab::MobileLink link{network.gateway(), 0};
  lab::HostProcess host{hostOptions({}, {"--wwan", link.name()}), network.gateway()};
};

class IdleTracking : public LiveTest {};

TEST_F(IdleTracking, FollowsAnInterfaceThroughItsLife) {
  Mobile mobile;
  const lab::MobileLink& link = mobile.link;
  for (const int life : {1, 2}) {
    mobile.start();
    EXPECT_EQ(mobile.state().filters, link.ipv4());
    EXPECT_TRUE(mobile.state().filterMode);
    EXPECT_THAT(mobile.host.status().capabilities, testing::ElementsAre("CAP_NET_ADMIN"));
    link.loseIpv4();
    EXPECT_TRUE(
        eventually([&] { return linesWith(" has lost " + link.ipv4(), mobile.host) == life; }));
    EXPECT_TRUE(mobile.state().connected) << "an address is not the link";
    EXPECT_TRUE(mobile.awaitRules());
    life == 1 ? link.disconnect() : link.remove();
    EXPECT_TRUE(mobile.awaitConnected(false));
    EXPECT_TRUE(mobile.awaitNothingLeft());
    EXPECT_FALSE(mobile.state().filters);
    mobile.command("dormancy", "active");
  }
}

TEST_F(IdleTracking, TellsWhatAnInterfaceLacks) {
  const lab::HotspotNetwork network({.clients = 0, .ipv6Only = {}});
  const lab::NetNamespace& gateway = network.gateway();
  lab::Process::runIpBatch(gateway, "link add down9 type bridge\nlink add bare9 up type bridge\n");
  const std::map<std::string, std::string> lacks = {{"nosuch9", "there is no such interface"},
                                                    {"down9", "its link is down"},
                                                    {"bare9", "it has no address"}};
  std::vector<std::string> options;
  for (const auto& [name, lack] : lacks) options.insert(options.end(), {"--wwan", name});
  lab::HostProcess host(hostOptions({}, options), gateway);
  for (const auto& [name, lack] : lacks) {
    EXPECT_TRUE(logs(host, "waiting for " + name + ": " + lack));
    EXPECT_THAT(host.command("dormancy " + name + " dormant"),
                StartsWith("dormancy: " + name + " is dormant; no filters, no timer: " + lack));
  }
  lab::Process::runIpBatch(gateway, "addr add 192.0.2.9/32 dev bare9\n");
  EXPECT_TRUE(logs(host, "bare9 is connected"));
}

TEST_F(IdleTracking, IsNotMisledByRenamesBridgesAndOverlappingPrefixes) {
  Mobile mobile;
  const lab::MobileLink& link = mobile.link;
  const auto ip = [&](const std::string& lines) {
    lab::Process::runIpBatch(mobile.network.gateway(), lines);
  };
  mobile.start();
  ip("link add br9 type bridge\nlink set " + link.name() + " master br9\nlink set " + link.name() +
     " nomaster\naddr add " + link.ipv4() + "/30 dev " + link.name() + "\naddr del " + link.ipv4() +
     "/30 dev " + link.name() + "\n");
  // News arrive in order: who has heard of this loss has heard of all that was before.
  ip("addr add 192.0.2.9/32 dev " + link.name() + "\naddr del 192.0.2.9/32 dev " + link.name() +
     "\n");
  EXPECT_TRUE(logs(mobile.host, " has lost 192.0.2.9"));
  EXPECT_EQ(linesWith(" has lost ", mobile.host), 1);
  EXPECT_EQ(linesWith(" is disconnected", mobile.host), 0);

  // Older kernels rename an interface only while it is down.
  const bool live = lab::kernelIsAtLeast(6, 2);
  const auto rename = [&](const std::string& from, const std::string& to) {
    ip((live ? "" : "link set " + from + " down\n") + "link set " + from + " name " + to + "\n" +
       (live ? "" : "link set " + to + " up\n"));
  };
  rename(link.name(), "away9");
  EXPECT_TRUE(mobile.awaitConnected(false));
  EXPECT_TRUE(mobile.awaitNothingLeft());
  rename("away9", link.name());
  EXPECT_TRUE(mobile.awaitConnected(true)) << "its addresses were there all along";
}

TEST_F(IdleTracking, AnIdleLinkGetsListenFiltersAndATimerThatAnyPacketSetsBack) {
  Mobile mobile;
  const lab::MobileLink& link = mobile.link;
  const auto before = Hotspot::Clock::now();
  mobile.start();
  ASSERT_TRUE(eventually([&] { return mobile.state().listenFilters.has_value(); }));
  EXPECT_GE(Hotspot::Clock::now() - before, 5s - kTick) << "not before it has run out";
  // A timer of 10 s shows what is left of it in whole seconds.
  const auto isFresh = [&] { return link.remainingSeconds() >= 9; };
  for (const auto send : {&lab::MobileLink::sendOut, &lab::MobileLink::sendIn}) {
    for (const int family : {AF_INET, AF_INET6}) {
      ASSERT_TRUE(eventually([&] { return !isFresh(); }));
      ASSERT_TRUE(eventually([&] {
        (link.*send)(family);
        return isFresh();
      }));
    }
  }
  EXPECT_EQ(mobile.idleReports(), 1) << "no other timer has been seen";
}

TEST_F(IdleTracking, LeavesNothingBehindHoweverTheHostEnds) {
  enum class Killed { kNobody, kParent, kChild, kAll };
  const struct {
    const char* name;
    Killed who;
    int signal;
  } cases[] = {{"quit", Killed::kNobody, 0},
               {"parent killed", Killed::kParent, SIGKILL},
               {"child killed", Killed::kChild, SIGKILL},
               {"both killed", Killed::kAll, SIGKILL}};
  for (const auto& test : cases) {
    SCOPED_TRACE(test.name);
    Mobile mobile;
    mobile.start();
    const pid_t parent = mobile.host.pid();
    if (test.who == Killed::kNobody) mobile.host.command("quit");
    if (test.who == Killed::kParent) ::kill(parent, test.signal);
    if (test.who == Killed::kChild) ::kill(pluginProcess(mobile.host), test.signal);
    if (test.who == Killed::kAll) ::kill(-parent, test.signal);
    EXPECT_TRUE(mobile.awaitNothingLeft());
  }
}

}  // namespace
