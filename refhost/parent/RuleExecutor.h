// Carries out the idle-timer commands that come over the command channel.
#pragma once

#include <cstdint>

#include "host/ZanCommands.h"
#include "refhost/parent/Firewall.h"
#include "refhost/parent/IdleTimerRule.h"
#include "refhost/parent/RuleKeeper.h"

namespace parent {

/// Keeps at most one rule for an interface and direction, and the keeper's ledger true.
///
/// Thread: one.
class RuleExecutor {
 public:
  /// A result that is not iptables' own: the rule is not taken on.
  static constexpr std::int32_t kNotTaken = 3;

  /// Both must outlive it.
  RuleExecutor(RuleKeeper& keeper, Firewall& firewall) : keeper_(keeper), firewall_(firewall) {}

  /// An addition first removes the rule that is there for |rule|'s interface and direction, with
  /// that one's timeout; a deletion removes it, and succeeds when there is none. Returns 0, or the
  /// failing program's exit status (see Firewall), or kNotTaken.
  std::int32_t execute(ZAN_COMMANDS command, const IdleTimerRule& rule);

 private:
  std::int32_t add(const IdleTimerRule& rule);

  /// Removes what is there for |rule|'s interface and direction.
  std::int32_t clear(const IdleTimerRule& rule);

  RuleKeeper& keeper_;
  Firewall& firewall_;
};

}  // namespace parent
