// What the idle timers of mobile-data interfaces need, beside what the host itself does.
#include "refhost/parent/IdleTimerSupport.h"

#include <sched.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "base/ChildProcess.h"
#include "base/MemoryFile.h"
#include "base/Patience.h"
#include "refhost/parent/Firewall.h"

namespace parent {
namespace {

/// Timers have one list of names for the whole machine: nobody's interface is called that.
constexpr IdleTimerRule kTrial{IdleTimerRule::Direction::kOutgoing, 1, {"zan-trial"}};

constexpr char kNotKnown[] = "whether idle timers will work is not known: ";
constexpr char kMissingPrograms[] =
    "; iptables and ip6tables, with the target IDLETIMER, are in the package iptables";
constexpr char kMissingModule[] =
    "; the kernel's part is the module xt_IDLETIMER (CONFIG_NETFILTER_XT_TARGET_IDLETIMER), which "
    "Debian's linux-image packages have";

/// What keeps a rule from being added, in a network namespace of this process's own; empty when
/// nothing does.
std::string tryRule() {
  if (unshare(CLONE_NEWNET) != 0) {
    return std::string(kNotKnown) +
           "no network namespace to try a rule in: " + std::strerror(errno);
  }
  std::string said;
  Firewall firewall([&](const std::string& complaint) { said += complaint; });
  const int result = firewall.add(kTrial);
  if (result != 0) {
    return "idle timers will not work, everything else does: " + said + kMissingPrograms +
           (result == Firewall::kNotRun ? "" : kMissingModule);
  }
  firewall.remove(kTrial);
  return {};
}

}  // namespace

std::optional<std::string> missingIdleTimerSupport() {
  const base::MemoryFile result;
  base::ChildProcess trial([&result] {
    const std::string missing = tryRule();
    if (write(result.fd(), missing.data(), missing.size()) < 0) _exit(1);
  });
  if (trial.error() != 0 || !trial.waitFor(base::kPatience) || !trial.status().success()) {
    return std::string(kNotKnown) + "the trial of a rule did not end";
  }
  const std::string missing = result.content();
  return missing.empty() ? std::nullopt : std::optional(missing);
}

}  // namespace parent
