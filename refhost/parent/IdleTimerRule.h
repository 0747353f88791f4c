// The firewall rules that make up an interface's idle timer.
#pragma once

#include <array>
#include <cstdint>
#include <string>
#include <vector>

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

  static constexpr std::size_t kInterfaceSize = 16;  ///< IFNAMSIZ of linux/if.h

  Direction direction;
  std::uint32_t timeoutSeconds;
  std::array<char, kInterfaceSize> interface;  ///< NUL-terminated

  bool operator==(const IdleTimerRule&) const = default;

  /// "CT_<interface>", the timer's name under /sys/class/xt_idletimer/timers.
  [[nodiscard]] std::string label() const;

  /// The words of the command that adds or deletes the rule, |program| being iptables or
  /// ip6tables. A rule is deleted only by the very words that it was added with.
  [[nodiscard]] std::vector<std::string> command(const std::string& program, bool add) const;

  /// For the log: "CT_wwan0, outgoing, 5 s".
  [[nodiscard]] std::string text() const;
};

}  // namespace parent
