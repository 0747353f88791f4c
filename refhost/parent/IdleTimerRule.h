// The firewall rules that make up an interface's idle timer.
#pragma once

#include <array>
#include <cstdint>
#include <string>
#include <vector>

#include "host/ZanCommands.h"

namespace parent {

/// One of the two rules that an interface's timer consists of. Both name the same timer, so that
/// traffic in either direction, over either family, restarts it:
///
///   kOutgoing  (commands 8 and 10)  mangle POSTROUTING, -o interface
///   kIncoming  (commands 9 and 11)  mangle PREROUTING,  -i interface
///
/// Each stands for an iptables and an ip6tables rule.
struct IdleTimerRule {
  enum class Direction : std::uint32_t { kOutgoing, kIncoming };
  enum class Action { kAdd, kDelete };

  static constexpr std::size_t kInterfaceSize = 16;  ///< IFNAMSIZ of linux/if.h

  Direction direction;
  std::uint32_t timeoutSeconds;
  std::array<char, kInterfaceSize> interface;  ///< NUL-terminated

  bool operator==(const IdleTimerRule&) const = default;

  /// What |command|, one of the four, does, and to which of the two rules.
  [[nodiscard]] static constexpr Action actionOf(ZAN_COMMANDS command) {
    return command <= ZAN_CMD_IDLETIMER_ADD_2 ? Action::kAdd : Action::kDelete;
  }
  [[nodiscard]] static constexpr Direction directionOf(ZAN_COMMANDS command) {
    return command == ZAN_CMD_IDLETIMER_ADD_1 || command == ZAN_CMD_IDLETIMER_DEL_1
               ? Direction::kOutgoing
               : Direction::kIncoming;
  }

  /// "CT_<interface>", the timer's name under /sys/class/xt_idletimer/timers.
  [[nodiscard]] std::string label() const;

  /// The words of the command that adds or deletes the rule, |program| being iptables or
  /// ip6tables. A rule is deleted only by the very words that it was added with.
  [[nodiscard]] std::vector<std::string> command(const std::string& program, Action action) const;

  /// For the log: "CT_wwan0, outgoing, 5 s".
  [[nodiscard]] std::string text() const;
};

}  // namespace parent
