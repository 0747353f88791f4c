// What the programs that play something in the lab have in common.
#pragma once

#include <atomic>
#include <chrono>
#include <functional>
#include <optional>
#include <stdexcept>

#include "base/Patience.h"

namespace demo {

/// Ends a play that somebody has interrupted.
class Interrupted : public std::runtime_error {
 public:
  Interrupted() : std::runtime_error("interrupted; nothing is left behind") {}
};

/// How a play waits: not beyond an interrupt of its program. Everything throws Interrupted.
class Waiting {
 public:
  using Clock = std::chrono::steady_clock;

  explicit Waiting(const std::atomic<bool>& interrupted) : interrupted_(interrupted) {}

  void until(Clock::time_point when) const;

  /// Tries |condition| every |step| until it holds, at most for |limit|. Returns when it came to
  /// hold.
  [[nodiscard]] std::optional<Clock::time_point> until(
      const std::function<bool()>& condition, Clock::duration limit = base::kPatience,
      std::chrono::milliseconds step = std::chrono::milliseconds(1)) const;

 private:
  const std::atomic<bool>& interrupted_;
};

/// What main() of zandemo and zansoak comes to: becomes able to create network namespaces, catches
/// SIGINT and SIGTERM and calls |play|. Says on standard error, after |name|, what |play| threw.
/// Returns the exit status: 0, 1 if it threw, 130 if interrupted.
int runProgram(const char* name, const std::function<void(const Waiting& waiting)>& play);

}  // namespace demo
