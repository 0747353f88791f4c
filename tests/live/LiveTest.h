// What every live test needs: a kernel that lets us, and a hotspot with the host on its gateway.
#pragma once

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <chrono>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "lab/ClientConnections.h"
#include "lab/ConntrackTable.h"
#include "lab/EchoServer.h"
#include "lab/HostProcess.h"
#include "lab/HotspotNetwork.h"

/// Prepares the process, before it has threads. Call it first thing in main().
void prepareForLiveTests();

/// Whether the running kernel has this version or a later one.
[[nodiscard]] bool kernelIsAtLeast(int version, int patchLevel);

/// Skips the test, with the reason, where the kernel does not let it run; fails it instead when
/// CI=true is in the environment.
class LiveTest : public testing::Test {
 protected:
  void SetUp() override;
};

/// Paths of the built programs.
extern const std::string kHostProgram;
extern const std::string kPluginPath;

/// A hotspot whose gateway runs the host; connections are opened on demand.
class Hotspot {
 public:
  using Entries = std::vector<lab::ConntrackEntry>;
  using Clock = std::chrono::steady_clock;

  explicit Hotspot(lab::HotspotNetwork::Options options = {},
                   std::vector<std::string> properties = {});

  /// Opens |perKind| connections of each kind from client |i| and returns when the plug-in has
  /// heard of all its addresses.
  void connect(std::size_t i, std::size_t perKind);

  /// Tells the host that exactly these clients are left.
  void reportClients(const std::set<std::size_t>& present);

  /// The TCP and UDP entries of client |i| now.
  [[nodiscard]] Entries entriesOf(std::size_t i) const;
  [[nodiscard]] Entries table() const { return lab::ConntrackTable::read(network.gateway()); }

  /// Polls until |condition| holds; false when |limit| has passed first.
  template <typename Condition>
  [[nodiscard]] static bool within(std::chrono::milliseconds limit, Condition condition) {
    const auto end = Clock::now() + limit;
    while (!condition()) {
      if (Clock::now() > end) return false;
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
  }

  /// A counter of "deletions" in the host's status.
  [[nodiscard]] int deletions(const char* counter) {
    return host.status()["deletions"][counter].get<int>();
  }

  lab::HotspotNetwork network;
  lab::EchoServer server;
  lab::HostProcess host;
  std::map<std::size_t, std::unique_ptr<lab::ClientConnections>> connections;
};

/// Whether both lists hold the same connections, in any order and whatever their age.
[[nodiscard]] bool sameConnections(const Hotspot::Entries& a, const Hotspot::Entries& b);
