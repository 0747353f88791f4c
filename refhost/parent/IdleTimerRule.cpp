// A rule as words of a command line, and for the log.
#include "refhost/parent/IdleTimerRule.h"

#include <algorithm>
#include <charconv>
#include <iterator>
#include <sstream>

#include "base/InterfaceName.h"
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

std::optional<IdleTimerRule> IdleTimerRule::parse(const std::string& line) {
  constexpr std::size_t kInterface = 3;
  constexpr std::size_t kTimeout = 7;
  constexpr std::size_t kWordsBefore = 4;  // program, -w and table, which a line does not show
  std::istringstream stream(line);
  std::vector<std::string> words(std::istream_iterator<std::string>(stream), {});
  if (words.size() <= kTimeout || !base::isInterfaceName(words[kInterface])) return std::nullopt;
  IdleTimerRule rule{words[2] == "-o" ? Direction::kOutgoing : Direction::kIncoming, 0, {}};
  std::copy(words[kInterface].begin(), words[kInterface].end(), rule.interface.begin());
  const std::string& timeout = words[kTimeout];
  std::from_chars(timeout.data(), timeout.data() + timeout.size(), rule.timeoutSeconds);
  const auto added = rule.command({}, Action::kAdd);
  if (!std::equal(words.begin(), words.end(), added.begin() + kWordsBefore, added.end())) {
    return std::nullopt;
  }
  return rule;
}

std::string IdleTimerRule::text() const {
  return label() + (direction == Direction::kOutgoing ? ", outgoing, " : ", incoming, ") +
         std::to_string(timeoutSeconds) + " s";
}

}  // namespace parent
