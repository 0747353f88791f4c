// Adds and deletes idle-timer rules with iptables and ip6tables.
#pragma once

#include <functional>
#include <string>
#include <utility>

#include "refhost/parent/IdleTimerRule.h"

namespace parent {

/// Runs the programs with an argument vector and a fixed environment, never through a shell, one
/// after the other, and waits for each with a time limit.
///
/// Thread: one.
class Firewall {
 public:
  /// A program could not be run, so that it has changed nothing.
  static constexpr int kNotRun = 127;

  /// Takes what a failing program said.
  using Complain = std::function<void(const std::string& text)>;
  static void logComplaint(const std::string& text);

  explicit Firewall(Complain complain = logComplaint) : complain_(std::move(complain)) {}
  virtual ~Firewall() = default;

  /// Adds |rule| for both families, or for none: what was added is taken back when the other
  /// family fails. Returns 0, or the failing program's exit status (124: it took too long, 125: it
  /// was killed, 126: what was added could not be taken back, kNotRun: nothing was added).
  virtual int add(const IdleTimerRule& rule);

  /// Deletes |rule| for both families; a failure of one does not keep the other. Results as above.
  virtual int remove(const IdleTimerRule& rule);

  /// Deletes the rules of every host, whether it runs or has been killed, from this network
  /// namespace: idle timers with an interface's own label. Returns 0 when none is left.
  int sweep();

  /// Whether |result| is the program's own word. Otherwise, a failed add() with kNotRun apart,
  /// the rule may be there.
  [[nodiscard]] static bool isDefinite(int result);

 private:
  Complain complain_;
};

}  // namespace parent
