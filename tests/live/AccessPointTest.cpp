// Stations of a real access point; every claim is about the kernel's table, and what others get.
#include <memory>

#include "lab/AccessPoint.h"
#include "tests/live/LiveTest.h"

namespace {

using base::eventually;
using lab::AccessPoint;

constexpr std::size_t kOfEachKind = 3;  // of four

class AccessPointTest : public LiveTest {
 protected:
  void SetUp() override {
    LiveTest::SetUp();
    const std::string obstacle = AccessPoint::obstacle();
    if (!obstacle.empty()) GTEST_SKIP() << "cannot run here: " << obstacle;
  }
};

/// A hotspot whose host was there before the access point, on which nobody is.
struct Radio {
  Radio(std::size_t clients, AccessPoint::Wiring wiring)
      : hotspot({.clients = clients, .ipv6Only = {}}, {}, {"--hotspot", AccessPoint::kInterface}),
        accessPoint(std::make_unique<AccessPoint>(hotspot.network, wiring)) {
    // Joining takes its time, and no entry is to end by itself meanwhile.
    hotspot.network.gateway().setSysctl("netfilter/nf_conntrack_udp_timeout", "600");
  }

  /// All clients join, and the host has heard of them and their addresses.
  void fill() {
    for (std::size_t i = 0; i < hotspot.network.clientCount(); ++i) {
      accessPoint->join(i);
      hotspot.connect(i, kOfEachKind);
    }
    EXPECT_TRUE(awaitClients(hotspot.network.clientCount()));
  }

  [[nodiscard]] bool awaitClients(std::size_t count) {
    return eventually([&] { return hotspot.host.status().clients.size() == count; });
  }
  [[nodiscard]] bool awaitNoEntriesOf(std::size_t i) {
    return eventually([&] { return hotspot.entriesOf(i).empty(); });
  }

  Hotspot hotspot;
  std::unique_ptr<AccessPoint> accessPoint;
};

TEST_F(AccessPointTest, AStationThatLeavesOrIsThrownOutIsFlushedAndNobodyElse) {
  constexpr std::size_t kLeaves = 0;
  constexpr std::size_t kThrownOut = 1;
  constexpr std::size_t kStays = 2;
  Radio radio(3, AccessPoint::Wiring::kPlain);
  radio.fill();
  const auto before = radio.hotspot.entriesOf(kStays);
  ASSERT_EQ(before.size(), 4 * kOfEachKind);

  radio.accessPoint->leave(kLeaves);
  EXPECT_TRUE(radio.awaitNoEntriesOf(kLeaves));
  EXPECT_EQ(radio.hotspot.entriesOf(kThrownOut).size(), 4 * kOfEachKind);
  radio.accessPoint->throwOut(kThrownOut);
  EXPECT_TRUE(radio.awaitNoEntriesOf(kThrownOut));
  EXPECT_TRUE(sameConnections(radio.hotspot.entriesOf(kStays), before));
  EXPECT_EQ(radio.hotspot.connections[kStays]->exchange(), before.size()) << "they carry data";
}

TEST_F(AccessPointTest, ARestartFlushesAllAndWhoComesBackIsServed) {
  Radio radio(2, AccessPoint::Wiring::kBridged);
  radio.fill();
  const pid_t process = pluginProcess(radio.hotspot.host);
  const auto threads = threadsOf(process);
  radio.accessPoint->stop();
  for (const std::size_t client : {0U, 1U}) EXPECT_TRUE(radio.awaitNoEntriesOf(client));
  ASSERT_TRUE(eventually([&] { return threadsOf(process) == threads; })) << "clean-ups are over";

  radio.accessPoint->start();
  radio.fill();
  radio.accessPoint.reset();  // the interface goes away
  for (const std::size_t client : {0U, 1U}) EXPECT_TRUE(radio.awaitNoEntriesOf(client));
}

}  // namespace
