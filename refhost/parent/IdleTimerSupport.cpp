#include "refhost/parent/IdleTimerSupport.h"

#include <sched.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstring>

#include "base/UniqueFd.h"
#include "refhost/parent/Firewall.h"

namespace parent {
namespace {

/// Timers have one list of names for the whole machine: nobody's interface is called that.
constexpr IdleTimerRule kTrial{IdleTimerRule::Direction::kOutgoing, 1, {"zan-trial"}};

constexpr char kPrograms[] =
    "; iptables and ip6tables, with the target IDLETIMER, are in the package iptables";
constexpr char kModule[] =
    "; the kernel's part is the module xt_IDLETIMER (CONFIG_NETFILTER_XT_TARGET_IDLETIMER), which "
    "Debian's linux-image packages have";

/// What keeps a rule from being added, in a network namespace of this process's own; empty when
/// nothing does.
std::string tryRule() {
  if (unshare(CLONE_NEWNET) != 0) {
    return std::string(
               "whether idle timers will work is not known: no network namespace to try "
               "a rule in: ") +
           std::strerror(errno);
  }
  std::string said;
  Firewall firewall([&](const std::string& complaint) { said += complaint; });
  const int result = firewall.add(kTrial);
  if (result != 0) {
    return "idle timers will not work, everything else does: " + said + kPrograms +
           (result == Firewall::kNotRun ? "" : kModule);
  }
  firewall.remove(kTrial);
  return {};
}

std::string readAll(int fd) {
  std::string text;
  std::array<char, 1024> bytes;
  for (;;) {
    const ssize_t count = read(fd, bytes.data(), bytes.size());
    if (count < 0 && errno == EINTR) continue;
    if (count <= 0) return text;
    text.append(bytes.data(), static_cast<std::size_t>(count));
  }
}

}  // namespace

std::optional<std::string> missingIdleTimerSupport() {
  std::array<int, 2> ends{};
  if (pipe(ends.data()) != 0) return std::nullopt;
  const base::UniqueFd reading(ends[0]);
  base::UniqueFd writing(ends[1]);
  const pid_t child = fork();
  if (child == 0) {
    const std::string missing = tryRule();
    _exit(write(writing.get(), missing.data(), missing.size()) >= 0 ? 0 : 1);
  }
  writing.reset();
  const std::string missing = readAll(reading.get());
  if (child > 0) waitpid(child, nullptr, 0);
  return missing.empty() ? std::nullopt : std::optional(missing);
}

}  // namespace parent
