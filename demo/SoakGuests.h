#pragma once

#include <array>
#include <chrono>
#include <cstddef>
#include <memory>
#include <random>
#include <set>
#include <string>
#include <vector>

#include "demo/DemoReport.h"
#include "lab/ClientConnections.h"
#include "lab/ConntrackTable.h"
#include "lab/EchoServer.h"
#include "lab/HostProcess.h"
#include "lab/HotspotNetwork.h"

namespace demo {

/// The hotspot clients of a soak, each with a server of its own to talk to. The host is told who is
/// there. What returns bool is false when there was nobody it could happen to; |planned| is how
/// much of the soak is over, which decides who may come back.
class SoakGuests {
 public:
  using Clock = std::chrono::steady_clock;
  using Milliseconds = std::chrono::milliseconds;
  static constexpr std::size_t kCount = 10;
  /// The last flush of a client begins no sooner after its departure.
  static constexpr Milliseconds kLastFlush{10000};

  /// All of them are there, with connections. |network| has kCount clients; everything must
  /// outlive this object.
  SoakGuests(const lab::HotspotNetwork& network, lab::HostProcess& host, std::mt19937& random);

  bool leave(Milliseconds planned);
  bool comeBack(Milliseconds planned);
  bool talk();
  /// A peer of a client that has left goes on sending, while there is a flush to come.
  bool straggle();
  /// New connections for all who are there; then the old ones are closed.
  void reopen();

  /// Half of them leave; of the others it is noted which TCP entries they have.
  void leaveHalf(Milliseconds planned);
  /// What is claimed of the table and the echoes, when all since leaveHalf() is over.
  void check(DemoReport& report);

  [[nodiscard]] std::size_t presentCount() const { return list(true).size(); }

 private:
  using Entries = std::vector<lab::ConntrackEntry>;
  /// As they are called under /proc.
  using Threads = std::set<std::string>;

  struct Guest {
    bool present = false;
    std::size_t perKind = 0;
    std::unique_ptr<lab::EchoServer> server;
    std::unique_ptr<lab::ClientConnections> connections;
    Clock::time_point departed;
    Milliseconds departurePlanned{};
    Threads workers;     ///< of the host, which its departure has started
    bool judged = true;  ///< nothing came that its last flush may have missed
  };

  std::size_t draw(std::size_t below) { return random_() % below; }
  [[nodiscard]] std::vector<std::size_t> list(bool present) const;
  [[nodiscard]] Entries entriesOf(std::size_t i) const;
  [[nodiscard]] Entries establishedOf(std::size_t i) const;
  void reportToHost();
  void welcome(std::size_t i);
  void open(std::size_t i);
  void exchange(std::size_t i);
  void depart(const std::vector<std::size_t>& who, Milliseconds planned);
  [[nodiscard]] Threads threads() const;
  void awaitEnd(const Threads& threads) const;
  void awaitLastFlush(std::size_t i) const;
  void noteStale(std::size_t i);

  const lab::HotspotNetwork& network_;
  lab::HostProcess& host_;
  std::mt19937& random_;
  const std::string threadFolder_;
  const Threads idleThreads_ = threads();
  std::array<Guest, kCount> guests_;

  std::size_t sent_ = 0;
  std::size_t echoed_ = 0;
  std::size_t departures_ = 0;
  Entries stale_;
  Entries stayed_;
};

}  // namespace demo
