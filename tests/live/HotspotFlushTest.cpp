// Hotspot flushes on a live kernel; every claim is about the kernel's own table.
#include <netinet/in.h>

#include <csignal>
#include <thread>

#include "lab/ConntrackInserter.h"
#include "lab/Process.h"
#include "tests/live/LiveTest.h"

namespace {

using namespace std::chrono_literals;
using base::eventually;
using lab::ConntrackInserter;

constexpr std::size_t kPerKind = 5;

class HotspotFlush : public LiveTest {};

TEST_F(HotspotFlush, TakesTheEntriesOfWhoLeavesAndOfNobodyElse) {
  const struct {
    const char* name;
    std::size_t clients;
    std::set<std::size_t> ipv6Only;
    std::set<std::size_t> leaving;
  } cases[] = {
      {"one of two", 2, {}, {0}},
      {"two of three in one event", 3, {}, {0, 2}},
      {"one without IPv4", 2, {0}, {0}},
      {"the last one", 1, {}, {0}},
  };
  for (const auto& test : cases) {
    SCOPED_TRACE(test.name);
    Hotspot hotspot({.clients = test.clients, .ipv6Only = test.ipv6Only});
    std::set<std::size_t> all;
    for (std::size_t i = 0; i < test.clients; ++i) {
      hotspot.connect(i, kPerKind);
      all.insert(i);
    }
    hotspot.reportClients(all);
    std::set<std::size_t> staying = all;
    std::map<std::size_t, Hotspot::Entries> before;
    std::size_t doomed = 0;
    for (const std::size_t i : all) {
      before[i] = hotspot.entriesOf(i);
      ASSERT_EQ(before[i].size(), hotspot.connections[i]->count());
    }
    for (const std::size_t i : test.leaving) {
      staying.erase(i);
      doomed += before[i].size();
      hotspot.network.detachClient(i);
    }

    hotspot.reportClients(staying);
    ASSERT_TRUE(hotspot.awaitDeletions(doomed));
    for (const std::size_t i : test.leaving) EXPECT_TRUE(hotspot.entriesOf(i).empty());
    for (const std::size_t i : staying) {
      EXPECT_TRUE(sameConnections(hotspot.entriesOf(i), before[i]));
      EXPECT_EQ(hotspot.connections[i]->exchange(), before[i].size());
    }
  }
}

TEST_F(HotspotFlush, ComesBackAfterFiveAndTenSecondsAndThenForgetsTheClient) {
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
  EXPECT_GE(Hotspot::Clock::now() - departure, 5s);
  ASSERT_TRUE(base::eventually([&] { return threadsOf(process) == threads; }))
      << "the clean-up ends";
  EXPECT_GE(Hotspot::Clock::now() - departure, 10s);

  // Who is forgotten is looked for under no address at all.
  ConntrackInserter(hotspot.network.gateway())
      .insert({{IPPROTO_UDP, {client.ipv4, "203.0.113.2", 1, 2}}});
  hotspot.reportClients({0});
  hotspot.reportClients({});
  hotspot.host.stop(SIGTERM);
  EXPECT_EQ(hotspot.entriesOf(0).size(), 1U);

  const auto found = hotspot.foundByEachScan();
  ASSERT_EQ(found.size(), 3U + 1U) << "nothing is flushed between the flushes";
  EXPECT_EQ(found.front(), 4U);
  EXPECT_EQ(found.back(), 0U);
}

TEST_F(HotspotFlush, LeavesTheTableAloneForAStrangerAndWhileThePropertySwitchesItOff) {
  const std::string off = "persist.vendor.zan.disable.sap.conntrack=1";
  for (const auto& properties : {std::vector<std::string>{}, {off}}) {
    Hotspot hotspot({}, properties);
    properties.empty() ? hotspot.connect(0, kPerKind) : hotspot.open(0, kPerKind);
    const auto before = hotspot.table();
    const std::string leaver =
        properties.empty() ? "02:00:00:00:99:99" : hotspot.network.client(0).mac;
    hotspot.host.command("clients " + leaver);
    hotspot.host.command("clients");
    if (!properties.empty()) hotspot.host.command("upstream-lost 203.0.113.1");
    hotspot.host.stop(SIGTERM);  // after the deletions, if there are any
    EXPECT_TRUE(sameConnections(hotspot.table(), before));
    EXPECT_EQ(linesWith("DeleteV", hotspot.host), 0);
  }
}

TEST_F(HotspotFlush, LeavesOtherProtocolsInTheTable) {
  Hotspot hotspot;
  const auto& client = hotspot.network.client(0);
  hotspot.connect(0, 1);
  hotspot.reportClients({0});
  ConntrackInserter(hotspot.network.gateway())
      .insert({{IPPROTO_ICMP, {client.ipv4, "203.0.113.2", 77, 0}},
               {IPPROTO_ICMPV6, {client.ipv6, "2001:db8:ffff::2", 78, 0}},
               {IPPROTO_SCTP, {client.ipv4, "203.0.113.2", 5000, 5001}},
               {IPPROTO_ESP, {client.ipv6, "2001:db8:ffff::2", 0, 0}},
               {IPPROTO_TCP, {"203.0.113.2", client.ipv4, 443, 6000}},
               {IPPROTO_UDP, {"2001:db8:ffff::2", client.ipv6, 443, 6000}}});
  Hotspot::Entries others;
  for (const auto& entry : hotspot.table()) {
    if (!entry.isTcpOrUdp()) others.push_back(entry);
  }
  ASSERT_EQ(others.size(), 4U);
  hotspot.lose(0);
  EXPECT_TRUE(hotspot.awaitDeletions(4 + 2));
  EXPECT_TRUE(sameConnections(hotspot.table(), others));
}

TEST_F(HotspotFlush, LostUpstreamAddressTakesTheClientsTranslatedEntriesOnly) {
  Hotspot hotspot;
  hotspot.connect(0, kPerKind);
  hotspot.connect(1, kPerKind);
  const auto& client = hotspot.network.client(0);
  ConntrackInserter(hotspot.network.gateway())
      .insert({// Another upstream address, a stranger behind the lost one, the gateway itself.
               {IPPROTO_TCP,
                {client.ipv4, "198.51.100.7", 50000, 443},
                lab::ConntrackTuple{"198.51.100.7", "203.0.113.77", 443, 50000}},
               {IPPROTO_UDP,
                {"10.99.0.9", "198.51.100.7", 50001, 53},
                lab::ConntrackTuple{"198.51.100.7", "203.0.113.1", 53, 50001}},
               {IPPROTO_TCP, {"203.0.113.1", "198.51.100.7", 50002, 443}}});
  Hotspot::Entries staying;
  for (const auto& entry : hotspot.table()) {
    const bool known = entry.original.source == client.ipv4 ||
                       entry.original.source == hotspot.network.client(1).ipv4;
    if (!known || entry.reply.destination != "203.0.113.1") staying.push_back(entry);
  }
  ASSERT_EQ(staying.size(), kPerKind * 4 + 3);

  hotspot.host.command("upstream-lost 203.0.113.200 203.0.113.1");
  EXPECT_TRUE(base::eventually([&] { return sameConnections(hotspot.table(), staying); }));
}

TEST_F(HotspotFlush, TakesThousandsFromALargeTable) {
  constexpr std::size_t kEntries = 8000;
  Hotspot hotspot;
  hotspot.connect(0, 1);
  hotspot.reportClients({0});
  const auto& client = hotspot.network.client(0);
  std::vector<ConntrackInserter::Entry> entries;
  for (std::size_t i = 0; i < kEntries; ++i) {
    const bool own = i % 4 == 0;
    const auto port = static_cast<std::uint16_t>(1024 + i);
    entries.push_back({i % 3 == 0 ? std::uint8_t{IPPROTO_TCP} : std::uint8_t{IPPROTO_UDP},
                       {own ? client.ipv4 : "10.77.1.2", "198.51.100.7", port, 443}});
  }
  ConntrackInserter(hotspot.network.gateway()).insert(entries);
  hotspot.lose(0);
  EXPECT_TRUE(hotspot.awaitDeletions(4 + kEntries / 4));
  EXPECT_EQ(hotspot.table().size(), kEntries - kEntries / 4);
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
  EXPECT_TRUE(base::eventually([&] { return hotspot.entriesOf(0).empty(); }));
}

TEST_F(HotspotFlush, KnowsItsClientsAlsoAfterAFloodOfNeighbourNotifications) {
  Hotspot hotspot;
  // The host is two processes, in a group of their own.
  const pid_t process = pluginProcess(hotspot.host);
  ::kill(-hotspot.host.pid(), SIGSTOP);
  ASSERT_TRUE(base::eventually([&] { return stateOf(process) == 'T'; }));
  std::string batch;
  for (int i = 0; i < 4000; ++i) {
    batch += "neigh replace 10.43.1." + std::to_string(i % 250 + 3) +
             " lladdr 02:00:00:01:00:" + (i / 250 % 2 == 0 ? "01" : "02") + " dev ap1\n";
  }
  // Behind the flood the client comes, of whom nothing else will be announced.
  const auto& client = hotspot.network.client(0);
  for (const std::string& address : {client.ipv4, client.ipv6}) {
    batch += "neigh replace " + address + " lladdr " + client.mac + " dev " +
             client.gatewayInterface + " nud permanent\n";
  }
  lab::Process::runIpBatch(hotspot.network.gateway(), batch);
  hotspot.open(0, 1);
  ::kill(-hotspot.host.pid(), SIGCONT);
  EXPECT_TRUE(base::eventually([&] { return hotspot.host.status().neighbourOverruns > 0; }))
      << "the kernel had to drop some";
  EXPECT_TRUE(logs(hotspot.host, "Ipv6 neighbor Address " + client.ipv6));
  hotspot.reportClients({0});
  hotspot.lose(0);
  EXPECT_TRUE(hotspot.awaitDeletions(4));
}

}  // namespace
