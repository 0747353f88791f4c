// The system's second job: idle mobile links.
#pragma once

#include <chrono>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "base/Patience.h"
#include "demo/DemoReport.h"
#include "demo/Program.h"
#include "demo/Recording.h"
#include "lab/HostProcess.h"
#include "lab/HotspotNetwork.h"
#include "lab/MobileLink.h"

namespace demo {

/// The system's second job, for somebody who has never seen it: a mobile link falls asleep, the
/// kernel's idle timer runs out, traffic sets it back, tethering ends it all. What it says of rules
/// and timer was read from the kernel, what it says of filters from the host's modem.
class IdleDemo {
 public:
  static constexpr int kTimers = 5;

  /// Lets the first |timers| of the timers run out: 1, in 5 seconds, to kTimers, which takes almost
  /// three minutes.
  IdleDemo(lab::HostProcess::Options host, DemoReport& report, const Waiting& waiting, int timers)
      : hostOptions_(std::move(host)), report_(report), waiting_(waiting), timers_(timers) {}

  /// What was observed, for a plot. Valid when run() is over.
  [[nodiscard]] std::string plotData() const {
    return recording_.plotData("link", recording_.link().front().when);
  }

  /// Plays the act, about 15 seconds with one timer. Throws as Demo::run() does.
  void run();

 private:
  using Clock = std::chrono::steady_clock;
  using Condition = std::function<bool(const LinkMoment&)>;

  void introduce() const;
  /// Starts the next act, when the one before has been read.
  void act(const std::string& title);
  void raise();
  void fallAsleep();
  void idle();
  void speak();
  void quieten();
  void tether();
  void stopHost();

  /// Looks at the link until |condition| holds for what it sees, at most for |limit|; says now and
  /// then that it still waits. True when it came to hold.
  bool await(const Condition& condition, Clock::duration limit = base::kPatience);
  /// Looks at the link for so long.
  void watch(Clock::duration time);
  LinkMoment look();
  [[nodiscard]] const LinkMoment& last() const { return recording_.link().back(); }

  /// Waits for the timer of |timer| seconds to run out on the quiet link, and checks that it took
  /// no less. A longer one has to follow, unless it was the last.
  void expire(int timer);
  void checkRules(std::size_t expected);

  lab::HostProcess::Options hostOptions_;
  DemoReport& report_;
  const Waiting& waiting_;
  int timers_;

  // Torn down in reverse: the host first, the namespaces last.
  lab::HotspotNetwork network_{{.clients = 0, .ipv6Only = {}}};
  lab::MobileLink link_{network_.gateway(), 0};
  std::optional<lab::HostProcess> host_;

  Recording recording_;
  Clock::time_point lastFrame_;
  /// The last look before the timer was seen to begin anew.
  Clock::time_point timerStart_;
};

}  // namespace demo
