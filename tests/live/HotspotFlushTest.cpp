// Hotspot flushes on a live kernel; every claim is about the kernel's own table.
#include <csignal>
#include <thread>

#include "lab/Process.h"
#include "tests/live/LiveTest.h"

namespace {

using namespace std::chrono_literals;
using base::eventually;

constexpr std::size_t kPerKind = 5;

/// For ip(8): both addresses of |client|, which is announced once and never again.
std::string permanentNeighbours(const lab::HotspotNetwork::Client& client) {
  std::string lines;
  for (const std::string& address : {client.ipv4, client.ipv6}) {
    lines += "neigh replace " + address + " lladdr " + client.mac + " dev " +
             client.gatewayInterface + " nud permanent\n";
  }
  return lines;
}

class HotspotFlush : public LiveTest {};

TEST_F(HotspotFlush, TakesTheEntriesOfThoseWhoLeaveAndOfNobodyElse) {
  constexpr std::size_t kWithoutIpv4 = 0;
  constexpr std::size_t kStays = 1;
  constexpr std::size_t kWithBoth = 2;
  Hotspot hotspot({.clients = 3, .ipv6Only = {kWithoutIpv4}});
  std::size_t doomed = 0;
  for (const std::size_t client : {kWithoutIpv4, kStays, kWithBoth}) {
    hotspot.connect(client, kPerKind);
    if (client != kStays) doomed += hotspot.entriesOf(client).size();
  }
  hotspot.reportClients({kWithoutIpv4, kStays, kWithBoth});
  const auto before = hotspot.entriesOf(kStays);

  hotspot.network.detachClient(kWithoutIpv4);
  hotspot.network.detachClient(kWithBoth);
  hotspot.reportClients({kStays});
  ASSERT_TRUE(hotspot.awaitDeletions(doomed));
  EXPECT_TRUE(hotspot.entriesOf(kWithoutIpv4).empty());
  EXPECT_TRUE(hotspot.entriesOf(kWithBoth).empty());
  EXPECT_TRUE(sameConnections(hotspot.entriesOf(kStays), before));
  EXPECT_EQ(hotspot.connections[kStays]->exchange(), before.size()) << "they carry data";
}

TEST_F(HotspotFlush, ComesBackAfterFiveAndTenSecondsAndThenItsThreadEnds) {
  Hotspot hotspot;
  const auto& client = hotspot.network.client(0);
  hotspot.connect(0, 1);
  hotspot.reportClients({0});
  const pid_t process = pluginProcess(hotspot.host);
  const auto threads = threadsOf(process);
  const auto departure = Hotspot::Clock::now();
  hotspot.lose(0);
  ASSERT_TRUE(hotspot.awaitDeletions(4));
  hotspot.server.sendDatagram(client.ipv6, 40000, "late");
  ASSERT_TRUE(hotspot.awaitDeletions(5));
  EXPECT_TRUE(logs(hotspot.host, "flush over: 1 deleted"));
  EXPECT_GE(Hotspot::Clock::now() - departure, 5s);
  ASSERT_TRUE(eventually([&] { return threadsOf(process) == threads; }));
  EXPECT_GE(Hotspot::Clock::now() - departure, 10s);
  hotspot.host.stop(SIGTERM);  // its log is complete then
  EXPECT_EQ(linesWith("parseNfConnTrackFile: 0x", hotspot.host), 3)
      << "nothing is flushed between the flushes";
}

TEST_F(HotspotFlush, LostUpstreamAddressTakesTheConnectionsTranslatedToIt) {
  constexpr std::size_t kIpv4 = kPerKind * 2 * 2;  // of two clients, TCP and UDP
  Hotspot hotspot;
  hotspot.connect(0, kPerKind);
  hotspot.connect(1, kPerKind);
  const std::size_t all = hotspot.table().size();

  hotspot.host.command("upstream-lost 203.0.113.200 203.0.113.1");
  EXPECT_TRUE(hotspot.awaitDeletions(kIpv4));
  EXPECT_EQ(hotspot.table().size(), all - kIpv4) << "IPv6 stays";
}

TEST_F(HotspotFlush, TakesTheEntriesOfWhoWasThereBeforeTheHost) {
  Hotspot hotspot;
  const auto& client = hotspot.network.client(0);
  // Addresses that the client had before those that its connections use.
  std::string former;
  for (int i = 100; i < 120; ++i) {
    former += "neigh replace 10.43.0." + std::to_string(i) + " lladdr " + client.mac + " dev " +
              client.gatewayInterface + " nud stale\n";
  }
  lab::Process::runIpBatch(hotspot.network.gateway(), former);
  std::this_thread::sleep_for(50ms);  // the kernel tells ages in hundredths of a second
  hotspot.connect(0, kPerKind);
  hotspot.host.stop(SIGTERM);

  lab::HostProcess later(hostOptions({}), hotspot.network.gateway());
  later.command("clients " + client.mac);
  hotspot.network.detachClient(0);
  later.command("clients");
  EXPECT_TRUE(eventually([&] { return hotspot.entriesOf(0).empty(); }));
}

TEST_F(HotspotFlush, KnowsItsClientsAlsoAfterAFloodOfNeighbourNotifications) {
  Hotspot hotspot;
  // The host is two processes, in a group of their own.
  const pid_t process = pluginProcess(hotspot.host);
  ::kill(-hotspot.host.pid(), SIGSTOP);
  ASSERT_TRUE(eventually([&] { return stateOf(process) == 'T'; }));
  std::string batch;
  for (int i = 0; i < 4000; ++i) {
    batch += "neigh replace 10.43.1." + std::to_string(i % 250 + 3) +
             " lladdr 02:00:00:01:00:" + (i / 250 % 2 == 0 ? "01" : "02") + " dev ap1\n";
  }
  // Behind the flood the client comes, of whom nothing else will be announced.
  const auto& client = hotspot.network.client(0);
  batch += permanentNeighbours(client);
  lab::Process::runIpBatch(hotspot.network.gateway(), batch);
  hotspot.open(0, 1);
  ::kill(-hotspot.host.pid(), SIGCONT);
  EXPECT_TRUE(eventually([&] { return hotspot.host.status().neighbourOverruns > 0; }))
      << "the kernel had to drop some";
  EXPECT_TRUE(logs(hotspot.host, "Ipv6 neighbor Address " + client.ipv6));
  hotspot.reportClients({0});
  hotspot.lose(0);
  EXPECT_TRUE(hotspot.awaitDeletions(4));
}

TEST_F(HotspotFlush, KnowsClientsBehindABridgeWhateverTheBridgeAnnouncesOfThem) {
  Hotspot hotspot;
  const auto& client = hotspot.network.client(0);
  const lab::NetNamespace& gateway = hotspot.network.gateway();
  const std::string port = client.gatewayInterface;
  lab::Process::runIpBatch(gateway, "link add br9 up type bridge\naddr flush dev " + port +
                                        "\nlink set " + port + " master br9\n" +
                                        "addr add 10.43.0.1/24 dev br9\n" +
                                        "addr add 2001:db8:43::1/64 dev br9 nodad\n");
  hotspot.connect(0, 1);
  lab::Process::runIpBatch(gateway, "link set " + port + " type bridge_slave fdb_flush\n");
  ASSERT_EQ(hotspot.connections[0]->exchange(), 4U)
      << "the bridge learns again where the client is";
  // News arrive in order: who has heard of this neighbour has heard of what the bridge announced.
  lab::Process::runIpBatch(gateway, "neigh add 10.43.0.77 lladdr 02:00:00:00:43:77 dev br9\n");
  ASSERT_TRUE(logs(hotspot.host, "Ipv4 neighbor Address 10.43.0.77"));
  hotspot.reportClients({0});
  hotspot.lose(0);
  EXPECT_TRUE(hotspot.awaitDeletions(4));
}

TEST_F(HotspotFlush, KnowsAClientThatCameBackDuringItsCleanUp) {
  Hotspot hotspot;
  const auto& client = hotspot.network.client(0);
  hotspot.connect(0, 1);
  // From here on the kernel has nothing to announce of it.
  lab::Process::runIpBatch(hotspot.network.gateway(), permanentNeighbours(client));
  hotspot.reportClients({0});
  hotspot.reportClients({});
  hotspot.reportClients({0});
  ASSERT_TRUE(hotspot.awaitDeletions(4));

  const std::string announced = "Ipv6 neighbor Address " + client.ipv6;
  const auto before = linesWith(announced, hotspot.host);
  ASSERT_TRUE(eventually([&] { return linesWith(announced, hotspot.host) > before; }));
  hotspot.open(0, 1);
  hotspot.lose(0);
  EXPECT_TRUE(hotspot.awaitDeletions(8));
}

}  // namespace
