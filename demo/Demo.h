// The system's first job: what is left of clients and addresses that are gone.
#pragma once

#include <chrono>
#include <cstddef>
#include <functional>
#include <optional>

#include "demo/DemoReport.h"
#include "demo/Program.h"
#include "demo/Recording.h"
#include "lab/ClientConnections.h"
#include "lab/ConntrackTable.h"
#include "lab/EchoServer.h"
#include "lab/HostProcess.h"
#include "lab/HotspotNetwork.h"

namespace demo {

/// The system at work, for somebody who has never seen it: two hotspot clients with real
/// connections, one leaves, the upstream address is lost. Every sentence it prints about the
/// gateway's connection table was read from the kernel.
class Demo {
 public:
  /// |host|: the host to run on the gateway, with its plug-in. The others must outlive this object.
  Demo(lab::HostProcess::Options host, DemoReport& report, const Waiting& waiting)
      : hostOptions_(std::move(host)), report_(report), waiting_(waiting) {}

  /// What was observed, for a plot. Valid when run() is over.
  [[nodiscard]] std::string plotData() const { return recording_.plotData("hotspot", departure_); }

  /// Plays the act, about six seconds. Throws CheckFailed for the first claim that does not
  /// hold, Error if something cannot be set up, Interrupted.
  void run();

 private:
  using Clock = Waiting::Clock;
  using Entries = lab::ConntrackEntries;

  void introduce() const;
  /// Starts the next act, when the one before has been read.
  void act(const std::string& title);
  void raise();
  void openConnections();
  void leave();
  void straggle();
  void loseUpstream();
  void summarise();
  /// What the host's log tells of flushes goes to the recording.
  void noteFlushes();

  /// What |client| has in the kernel's table now; the recording notes what both have.
  Entries look(std::size_t client);
  /// Looks at the table until |end|.
  void watch(Clock::time_point end);
  /// The entries of client B that are of |family|.
  Entries entriesOfB(int family);
  /// When |look| finds nothing any more; nothing if it goes on to find.
  [[nodiscard]] std::optional<Clock::time_point> untilNone(
      const std::function<Entries()>& look) const;
  /// Waits until the host has taken in all that the kernel has said of neighbours.
  void awaitNeighbours();
  [[nodiscard]] std::size_t deletionsCounted() { return host_->status().deletions.deleted; }
  /// Waits until the host has counted a deletion for each entry that vanished: the kernel's answers
  /// may reach it a moment later. False when it counts others.
  bool awaitAnswers();

  lab::HostProcess::Options hostOptions_;
  DemoReport& report_;
  const Waiting& waiting_;

  // Torn down in reverse: the clients' connections first, the namespaces last.
  std::optional<lab::HotspotNetwork> network_;
  std::optional<lab::EchoServer> server_;
  std::optional<lab::HostProcess> host_;
  std::optional<lab::ClientConnections> connectionsA_;
  std::optional<lab::ClientConnections> connectionsB_;

  Recording recording_;
  Clock::time_point departure_;
  /// Entries seen in the table that the plug-in then had deleted.
  std::size_t vanished_ = 0;
};

}  // namespace demo
