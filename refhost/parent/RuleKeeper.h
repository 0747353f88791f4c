// Makes sure that no idle-timer rule outlives the host.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <optional>
#include <vector>

#include "base/UniqueFd.h"
#include "refhost/framework/HostLog.h"
#include "refhost/parent/IdleTimerRule.h"

namespace parent {

/// A process of its own, in a session of its own, that is told of every rule over a pipe. When the
/// pipe ends, because its owner and what that was running have ended in whatever way, it deletes
/// the rules that are left and ends too. Should it be killed itself, its owner does that.
///
/// Thread: one; create it before there are others.
class RuleKeeper {
 public:
  /// More than any use of the channel needs; a stop deletes two.
  static constexpr std::size_t kMostRules = 64;

  /// What goes through the pipe, small enough to be written and read in one piece.
  enum class Fate : std::uint32_t { kExpected, kGone };
  struct Notice {
    Fate fate;
    IdleTimerRule rule;
  };
  static_assert(sizeof(Notice) <= 512, "PIPE_BUF");

  /// Starts the process, which calls |openLog| when there are rules to delete. Without it, valid()
  /// is false and errno says why.
  explicit RuleKeeper(const framework::OpenLog& openLog);

  /// Ends the pipe and returns when the process has deleted what was left.
  ~RuleKeeper();
  RuleKeeper(const RuleKeeper&) = delete;
  RuleKeeper& operator=(const RuleKeeper&) = delete;

  [[nodiscard]] bool valid() const { return pid_ > 0; }

  /// Tell before a rule is added. False when it must not be: the keeper does not listen, or there
  /// are too many.
  [[nodiscard]] bool expect(const IdleTimerRule& rule);

  /// Tell when a rule is certain to be gone.
  void forget(const IdleTimerRule& rule);

  /// The rule of |rule|'s interface and direction, whatever its timeout, that was added, and not
  /// deleted, since the keeper started.
  [[nodiscard]] std::optional<IdleTimerRule> presentRule(const IdleTimerRule& rule) const;

  /// In a child of the owner: lets go of the pipe, so that it ends with the owner.
  void release() {
    pipe_.reset();
    pid_ = -1;
  }

 private:
  bool tell(const Notice& notice);

  base::UniqueFd pipe_;
  pid_t pid_ = -1;
  std::vector<IdleTimerRule> rules_;
};

}  // namespace parent
