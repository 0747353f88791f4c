// The hotspot clients of a soak.
#pragma once

#include <array>
#include <chrono>
#include <cstddef>
#include <optional>
#include <random>
#include <vector>

#include "demo/DemoReport.h"
#include "demo/Program.h"
#include "lab/ClientConnections.h"
#include "lab/ConntrackTable.h"
#include "lab/EchoServer.h"
#include "lab/HostProcess.h"
#include "lab/HotspotNetwork.h"

namespace demo {

/// Each has a server of its own to talk to, and the host is told who is there. What returns bool is
/// false when there was nobody it could happen to.
class SoakGuests {
 public:
  using Clock = Waiting::Clock;
  static constexpr std::size_t kCount = 10;
  /// The last flush of a client begins no sooner after its departure.
  static constexpr std::chrono::seconds kLastFlush{10};

  /// All of them are there, with connections. |network| has kCount clients; everything must
  /// outlive this object.
  SoakGuests(const lab::HotspotNetwork& network, lab::HostProcess& host, std::mt19937& random,
             const Waiting& waiting);

  bool leave();
  /// Somebody who has left is back, when the last flush is over: that forgets a client, whether it
  /// is there or not.
  bool comeBack();
  bool talk();
  /// A peer of a client that has left goes on sending, while there is a flush to come.
  bool straggle();
  /// New connections for all who are there; then the old ones are closed.
  void reopen();

  /// Every flush is over: keeps what those that have left still have in the table.
  void noteStale();

  /// Half of them leave; of the others it is noted which TCP entries they have.
  void leaveHalf();
  /// What is claimed of the table and the echoes, when all since leaveHalf() is over.
  void check(DemoReport& report);

  [[nodiscard]] std::size_t presentCount() const { return list(State::kPresent).size(); }

 private:
  enum class State { kPresent, kLeaving, kForgotten };

  struct Guest {
    State state = State::kPresent;
    std::size_t perKind = 0;
    std::optional<lab::EchoServer> server;
    std::optional<lab::ClientConnections> connections;
    Clock::time_point departed;
  };

  std::size_t draw(std::size_t below) { return random_() % below; }
  [[nodiscard]] std::vector<std::size_t> list(State state) const;
  [[nodiscard]] lab::ConntrackEntries establishedOf(std::size_t i) const;
  void reportToHost();
  void welcome(std::size_t i);
  void open(std::size_t i);
  void exchange(std::size_t i);
  void depart(const std::vector<std::size_t>& who);

  const lab::HotspotNetwork& network_;
  lab::HostProcess& host_;
  std::mt19937& random_;
  const Waiting& waiting_;
  std::array<Guest, kCount> guests_;

  std::size_t sent_ = 0;
  std::size_t echoed_ = 0;
  std::size_t departures_ = 0;
  lab::ConntrackEntries stale_;
  lab::ConntrackEntries stayed_;
};

}  // namespace demo
