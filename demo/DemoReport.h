// What the plays print.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "lab/ConntrackTable.h"
#include "lab/HostProcess.h"
#include "lab/HotspotNetwork.h"

namespace demo {

/// A claim of the demo that the kernel's state does not bear out.
class CheckFailed : public std::runtime_error {
 public:
  CheckFailed(const std::string& claim, const std::string& expected, const std::string& seen)
      : std::runtime_error("FAILED: " + claim + "\n  expected: " + expected +
                           "\n  seen:     " + seen) {}
};

/// A mobile link as it was seen once.
struct LinkMoment {
  std::chrono::steady_clock::time_point when;
  bool connected = false;
  bool dormant = false;
  bool tethering = false;
  bool filters = false;
  bool listenFilters = false;
  /// What the kernel's idle timer shows, in seconds; nothing when there is none.
  std::optional<int> timer;
  /// Frames of any kind, both directions, since the link exists.
  std::uint64_t frames = 0;
};

/// What a play prints, on standard output, and the timeline it keeps of what it observed.
class DemoReport {
 public:
  using Clock = std::chrono::steady_clock;

  /// Whether tables and timers are also shown in the kernel's own words.
  enum class KernelText { kLeftOut, kShown };

  explicit DemoReport(KernelText kernelText = KernelText::kLeftOut) : kernelText_(kernelText) {}

  /// A paragraph's line; flushed, so that it appears when it happens.
  void say(const std::string& line) const;
  /// Starts the next act.
  void act(const std::string& title);

  /// Prints |claim| and |seen| if |holds|; throws CheckFailed otherwise.
  void check(bool holds, const std::string& claim, const std::string& expected,
             const std::string& seen);
  /// The next act: ends |host| as a service manager would, and checks that it ended in order.
  void endHost(lab::HostProcess& host);
  /// The last line.
  void end() const { say("\nAll " + std::to_string(checks_) + " claims held."); }

  /// One row for each client of |network|: its TCP and UDP entries in |entries|.
  void table(const lab::HotspotNetwork& network, const lab::ConntrackEntries& entries) const;

  /// The idle timers that the kernel has, machine-wide; nothing unless its own words are wanted.
  void timers() const;

  void observe(Clock::time_point when, const std::string& what);
  /// All observations in order of time, in milliseconds from |zero|.
  void timeline(Clock::time_point zero);

  /// Draws |moments|, in order and at least one, from left to right, with the times at which the
  /// plug-in reported the link idle.
  void picture(const std::vector<LinkMoment>& moments,
               const std::vector<Clock::time_point>& idleReports) const;

 private:
  struct Observation {
    Clock::time_point when;
    std::string what;
  };

  KernelText kernelText_;
  unsigned act_ = 0;
  std::size_t checks_ = 0;
  std::vector<Observation> observations_;
};

}  // namespace demo
