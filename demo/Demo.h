#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "base/Patience.h"
#include "demo/DemoReport.h"
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
  /// Thrown out of run() after requestStop().
  class Interrupted : public std::runtime_error {
   public:
    Interrupted() : std::runtime_error("interrupted; nothing is left behind") {}
  };

  /// |host|: the host to run on the gateway, with its plug-in. |report| must outlive this object.
  Demo(lab::HostProcess::Options host, DemoReport& report);

  /// Plays the act, about six seconds. Throws CheckFailed for the first claim that does not
  /// hold, Error if something cannot be set up, Interrupted.
  void run();

  /// Makes run() end soon. May be called from a signal handler.
  static void requestStop();
  [[nodiscard]] static bool stopIsRequested();

  // What another act needs too.

  using Clock = std::chrono::steady_clock;

  /// Tries |condition| every |step| until it holds, at most for |limit|. Returns when it came to
  /// hold. Throws Interrupted.
  [[nodiscard]] static std::optional<Clock::time_point> poll(
      const std::function<bool()>& condition, Clock::duration limit = base::kPatience,
      std::chrono::milliseconds step = std::chrono::milliseconds(1));

  /// Throws Interrupted.
  static void pauseUntil(Clock::time_point when);

  /// Ends |host| as a service manager would, and checks that it ended in order.
  static void stopHost(lab::HostProcess& host, DemoReport& report);

  /// However an act ended: waits until |host|, if there is one and it runs, has deleted its rules
  /// and with them its idle timers, which all of the machine can see.
  static void endHost(lab::HostProcess* host);

 private:
  using Entries = std::vector<lab::ConntrackEntry>;

  void introduce() const;
  void raise();
  void openConnections();
  void leave();
  void straggle();
  void loseUpstream();
  void summarise();

  /// The TCP and UDP entries of client |i| in the gateway's table now; all of it in |all|.
  [[nodiscard]] Entries entriesOf(std::size_t i, Entries* all = nullptr) const;
  /// Like poll(), for the claim that |look| finds nothing any more.
  [[nodiscard]] static std::optional<Clock::time_point> pollUntilNone(
      const std::function<Entries()>& look);
  /// Waits until the host has taken in all that the kernel has said of neighbours.
  void awaitNeighbours();
  [[nodiscard]] std::size_t deletionsCounted();
  /// Waits until the host has counted a deletion for each entry that vanished: the kernel's answers
  /// may reach it a moment later. False when it counts others.
  bool awaitAnswers();

  lab::HostProcess::Options hostOptions_;
  DemoReport& report_;

  // Torn down in reverse: the clients' connections first, the namespaces last.
  std::unique_ptr<lab::HotspotNetwork> network_;
  std::unique_ptr<lab::EchoServer> server_;
  std::unique_ptr<lab::HostProcess> host_;
  std::unique_ptr<lab::ClientConnections> connectionsA_;
  std::unique_ptr<lab::ClientConnections> connectionsB_;

  Clock::time_point departure_;
  /// Entries seen in the table that the plug-in then had deleted.
  std::size_t vanished_ = 0;
};

}  // namespace demo
