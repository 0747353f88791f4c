// What every live test needs: a kernel that lets us, and a hotspot with the host on its gateway.
#pragma once

#include <gmock/gmock.h>

#include <chrono>
#include <cstddef>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "base/Patience.h"
#include "lab/ClientConnections.h"
#include "lab/ConntrackTable.h"
#include "lab/EchoServer.h"
#include "lab/HostProcess.h"
#include "lab/HotspotNetwork.h"

/// Skips the test, with the reason, where the kernel does not let it run; fails it instead when
/// CI=true is in the environment.
class LiveTest : public testing::Test {
 protected:
  void SetUp() override;
};

/// Paths of the built programs.
extern const std::string kHostProgram;
extern const std::string kPluginPath;

/// The built host with the plug-in; it logs everything.
lab::HostProcess::Options hostOptions(std::vector<std::string> properties,
                                      std::vector<std::string> arguments = {});

/// Whether |host| logs a line that holds |text|, or has done so.
[[nodiscard]] bool logs(lab::HostProcess& host, const std::string& text);
/// How many such lines there are so far.
[[nodiscard]] std::ptrdiff_t linesWith(const std::string& text, const lab::HostProcess& host);

/// The process that has loaded the plug-in.
[[nodiscard]] pid_t pluginProcess(lab::HostProcess& host);
/// As the kernel shows it: 'S' when it sleeps, 'T' when it is stopped, and others.
[[nodiscard]] char stateOf(pid_t process);
[[nodiscard]] std::ptrdiff_t threadsOf(pid_t process);

/// A hotspot whose gateway runs the host; connections are opened on demand.
class Hotspot {
 public:
  using Entries = lab::ConntrackEntries;
  using Clock = std::chrono::steady_clock;

  explicit Hotspot(lab::HotspotNetwork::Options options = {},
                   std::vector<std::string> properties = {},
                   std::vector<std::string> arguments = {});

  /// Opens |perKind| connections of each kind from client |i|.
  void open(std::size_t i, std::size_t perKind);
  /// The same, and returns when the plug-in has heard of all its addresses.
  void connect(std::size_t i, std::size_t perKind);

  /// Tells the host that exactly these clients are left.
  void reportClients(const std::set<std::size_t>& present);
  /// Client |i|, the last one, walks away.
  void lose(std::size_t i);

  /// The TCP and UDP entries of client |i| now.
  [[nodiscard]] Entries entriesOf(std::size_t i) const { return network.entriesOf(i); }
  [[nodiscard]] Entries table() const { return lab::readConntrackTable(network.gateway()); }

  /// Waits until the kernel has confirmed |count| deletions in all. When there is nothing more to
  /// delete, the table stands still then.
  [[nodiscard]] bool awaitDeletions(std::size_t count);

  lab::HotspotNetwork network;
  lab::EchoServer server;
  lab::HostProcess host;
  std::map<std::size_t, std::unique_ptr<lab::ClientConnections>> connections;
};

/// Whether both lists hold the same connections, in any order and whatever their age.
[[nodiscard]] bool sameConnections(const Hotspot::Entries& a, const Hotspot::Entries& b);
