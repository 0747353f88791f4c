// Adds and deletes idle-timer rules with iptables and ip6tables.
#include "refhost/parent/Firewall.h"

#include <unistd.h>

#include <array>
#include <chrono>
#include <vector>

#include "base/ChildProcess.h"
#include "refhost/framework/HostLog.h"

namespace parent {
namespace {

constexpr std::chrono::seconds kTimeLimit{10};
constexpr int kTookTooLong = 124;
constexpr int kKilled = 125;
constexpr int kNotTakenBack = 126;
constexpr int kNotRun = Firewall::kNotRun;

constexpr std::array kPrograms{"iptables", "ip6tables"};

/// Where the two programs live on Debian and on Android.
constexpr char kPath[] = "/usr/sbin:/sbin:/system/bin";

/// All that the programs see of an environment.
std::vector<std::string> environment() {
  std::vector<std::string> result{"PATH=/usr/sbin:/usr/bin:/sbin:/bin:/system/bin", "LC_ALL=C"};
  // Whoever cannot write the machine's lock file, as in a user namespace, has tables of his own.
  if (access("/run", W_OK) != 0) result.emplace_back("XTABLES_LOCKFILE=/dev/null");
  return result;
}

void ignoreComplaint(const std::string& /*text*/) {}

int resultOf(const base::ProgramRun& run) {
  if (run.error != 0) return kNotRun;
  if (run.tookTooLong) return kTookTooLong;
  return run.status.signal != 0 ? kKilled : run.status.code;
}

std::string reasonFor(int result, std::string said) {
  if (result == kNotRun) return "it could not be run";
  if (result == kTookTooLong) return "it took too long and was killed";
  while (!said.empty() && said.back() == '\n') said.pop_back();
  return said;
}

int run(const std::vector<std::string>& words, const IdleTimerRule& rule,
        const Firewall::Complain& complain) {
  base::Program program;
  program.path = base::findProgram(words.front(), kPath);
  if (program.path.empty()) program.path = "/usr/sbin/" + words.front();
  program.words = words;
  program.environment = environment();
  program.descriptors =
      base::Program::Descriptors::kInherited;  // the keeper's pipe: see RuleKeeper
  const base::ProgramRun run = base::run(program, {}, kTimeLimit);
  const int result = resultOf(run);
  if (result != 0) {
    complain(program.path + " failed with " + std::to_string(result) + " for " + rule.text() +
             ": " + reasonFor(result, run.errors));
  }
  return result;
}

}  // namespace

void Firewall::logComplaint(const std::string& text) {
  HOST_LOG(kLogError, "firewall: %s", text.c_str());
}

int Firewall::add(const IdleTimerRule& rule) {
  int failure = 0;
  std::vector<const char*> ran;
  for (const char* program : kPrograms) {
    failure = run(rule.command(program, IdleTimerRule::Action::kAdd), rule, complain_);
    if (failure != kNotRun) ran.push_back(program);
    if (failure != 0) break;
  }
  if (failure == 0) return 0;
  for (const char* program : ran) {
    if (!isDefinite(
            run(rule.command(program, IdleTimerRule::Action::kDelete), rule, ignoreComplaint))) {
      failure = kNotTakenBack;
    }
  }
  return failure;
}

int Firewall::remove(const IdleTimerRule& rule) {
  int result = 0;
  for (const char* program : kPrograms) {
    const int failure = run(rule.command(program, IdleTimerRule::Action::kDelete), rule, complain_);
    if (failure != 0 && (result == 0 || !isDefinite(failure))) result = failure;
  }
  return result;
}

bool Firewall::isDefinite(int result) {
  return result != kTookTooLong && result != kKilled && result != kNotTakenBack &&
         result != kNotRun;
}

}  // namespace parent
