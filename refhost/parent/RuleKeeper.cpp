// The keeper's process, and its owner's end of the pipe.
#include "refhost/parent/RuleKeeper.h"

#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstdint>

#include "refhost/framework/HostLog.h"
#include "refhost/parent/Firewall.h"

namespace parent {
namespace {

void note(const RuleKeeper::Notice& notice, std::vector<IdleTimerRule>& rules) {
  if (notice.fate == RuleKeeper::Fate::kExpected) {
    rules.push_back(notice.rule);
    return;
  }
  const auto found = std::find(rules.begin(), rules.end(), notice.rule);
  if (found != rules.end()) rules.erase(found);
}

/// Deletes what is left; what could not be said for sure to be gone is tried once more.
void sweep(const std::vector<IdleTimerRule>& rules) {
  Firewall firewall;
  for (const IdleTimerRule& rule : rules) {
    HOST_LOG(kLogNotice, "deleting the rule that was left: %s", rule.text().c_str());
    if (!Firewall::isDefinite(firewall.remove(rule))) firewall.remove(rule);
  }
}

/// The keeper's life.
[[noreturn]] void keep(int pipe, const framework::OpenLog& openLog) {
  setsid();  // away from the terminal, and from whoever kills the host's process group
  for (const int signal : {SIGINT, SIGTERM, SIGHUP, SIGQUIT, SIGPIPE}) {
    std::signal(signal, SIG_IGN);
  }
  std::vector<IdleTimerRule> rules;
  RuleKeeper::Notice notice{};
  for (ssize_t count; (count = read(pipe, &notice, sizeof(notice))) != 0;) {
    if (count == sizeof(notice)) note(notice, rules);
    if (count < 0 && errno != EINTR) break;
  }
  if (!rules.empty()) {
    const auto log = openLog(kLogNotice);
    sweep(rules);
  }
  _exit(0);
}

}  // namespace

RuleKeeper::RuleKeeper(const framework::OpenLog& openLog) {
  // Programs that the owner runs inherit the pipe: as long as one of them may still add a rule,
  // it has not ended.
  std::array<int, 2> ends{};
  if (pipe(ends.data()) != 0) return;
  const base::UniqueFd reading(ends[0]);
  pipe_.reset(ends[1]);
  pid_ = fork();
  if (pid_ == 0) {
    pipe_.reset();
    keep(reading.get(), openLog);
  }
}

RuleKeeper::~RuleKeeper() {
  pipe_.reset();
  if (pid_ <= 0) return;
  int status = 0;
  while (waitpid(pid_, &status, 0) == -1 && errno == EINTR) {
  }
  const bool done = WIFEXITED(status) && WEXITSTATUS(status) == 0;
  if (!done) sweep(rules_);
}

bool RuleKeeper::expect(const IdleTimerRule& rule) {
  if (rules_.size() >= kMostRules) {
    HOST_LOG(kLogError, "%zu idle-timer rules are there: no more", rules_.size());
    return false;
  }
  if (!tell({Fate::kExpected, rule})) return false;
  rules_.push_back(rule);
  return true;
}

void RuleKeeper::forget(const IdleTimerRule& rule) {
  const Notice notice{Fate::kGone, rule};
  note(notice, rules_);
  tell(notice);
}

std::optional<IdleTimerRule> RuleKeeper::presentRule(const IdleTimerRule& rule) const {
  for (const IdleTimerRule& present : rules_) {
    if (present.interface == rule.interface && present.direction == rule.direction) return present;
  }
  return std::nullopt;
}

bool RuleKeeper::tell(const Notice& notice) {
  if (write(pipe_.get(), &notice, sizeof(notice)) == sizeof(notice)) return true;
  HOST_LOG(kLogError, "the rule keeper does not listen: %s", notice.rule.text().c_str());
  return false;
}

}  // namespace parent
