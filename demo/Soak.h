// Both jobs of the system for minutes.
#pragma once

#include <sys/types.h>

#include <array>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <random>
#include <string>

#include "demo/DemoReport.h"
#include "demo/Program.h"
#include "demo/SoakGuests.h"
#include "lab/HostProcess.h"
#include "lab/HotspotNetwork.h"
#include "lab/MobileLink.h"

namespace demo {

/// Hotspot clients, upstream addresses and a mobile link come and go in a random order, in rounds
/// that end when every flush is over. Afterwards the kernel's table, the host's counters and what
/// its process uses are checked.
class Soak {
 public:
  /// |host| comes with its plug-in; its arguments are the soak's to set. |seed| decides what
  /// happens, and in which order. The others must outlive this object.
  Soak(const lab::HostProcess::Options& host, std::uint32_t seed, DemoReport& report,
       const Waiting& waiting);

  /// Plays for |length|, and until the last flushes are over. Throws as Demo::run() does.
  void run(std::chrono::minutes length);

 private:
  using Clock = Waiting::Clock;

  struct Kind {
    const char* name;
    unsigned weight;
    bool (*play)(Soak& soak);  ///< false when there was nobody it could happen to
    std::size_t played = 0;
  };

  /// What a process uses.
  struct Footprint {
    explicit Footprint(pid_t pid);
    [[nodiscard]] std::string text() const;

    std::size_t dirtyKiB = 0;
    std::size_t descriptors = 0;
    std::size_t threads = 0;
  };

  std::size_t draw(std::size_t below) { return random_() % below; }
  [[nodiscard]] lab::HostProcess::Options following(lab::HostProcess::Options options) const;

  void playUntil(Clock::time_point end);
  void playRound();
  void playOne();
  bool loseUpstream();
  bool changeLink();
  bool switchDormancy();
  bool switchTethering();

  /// Waits until every flush is over. False if one goes on.
  bool settle();
  /// Half of the clients leave, the link goes down; what the host uses when all is over.
  Footprint calmDown(const char* why);

  void check(const Footprint& before, const Footprint& after);
  void checkCounters(const lab::HostState& status);

  DemoReport& report_;
  const Waiting& waiting_;
  const std::uint32_t seed_;
  std::mt19937 random_{seed_};

  // Torn down in reverse: the clients' connections first, the namespaces last.
  lab::HotspotNetwork network_{{.clients = SoakGuests::kCount, .ipv6Only = {}}};
  lab::MobileLink link_{network_.gateway(), 0};
  lab::HostProcess host_;
  const pid_t pid_ = host_.status().pid;
  const std::size_t idleThreads_ = Footprint(pid_).threads;
  SoakGuests guests_{network_, host_, random_, waiting_};

  bool linkUp_ = false;
  bool dormant_ = false;
  bool tethering_ = false;
  std::array<Kind, 8> kinds_;
};

}  // namespace demo
