// A rule as words of a command line, and for the log.
#include "refhost/parent/IdleTimerRule.h"

#include "host/Agreement.h"

namespace parent {

std::string IdleTimerRule::label() const {
  return std::string(kIdleTimerLabelPrefix) + "_" + interface.data();
}

std::vector<std::string> IdleTimerRule::command(const std::string& program, Action action) const {
  const bool outgoing = direction == Direction::kOutgoing;
  return {program,
          "-w",
          "-t",
          "mangle",
          action == Action::kAdd ? "-A" : "-D",
          outgoing ? "POSTROUTING" : "PREROUTING",
          outgoing ? "-o" : "-i",
          interface.data(),
          "-j",
          kIdleTimerTarget,
          "--timeout",
          std::to_string(timeoutSeconds),
          "--label",
          label()};
}

std::string IdleTimerRule::text() const {
  return label() + (direction == Direction::kOutgoing ? ", outgoing, " : ", incoming, ") +
         std::to_string(timeoutSeconds) + " s";
}

}  // namespace parent
