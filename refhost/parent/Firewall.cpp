// Adds and deletes idle-timer rules with iptables and ip6tables.
#include "refhost/parent/Firewall.h"

#include <fcntl.h>

#include <array>
#include <chrono>
#include <filesystem>
#include <iterator>
#include <sstream>
#include <vector>

#include "base/ChildProcess.h"
#include "base/UniqueFd.h"
#include "host/Agreement.h"
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
  // As iptables opens it. Who cannot have the machine's lock, as in a user namespace, has tables of
  // his own.
  const base::UniqueFd lock(open("/run/xtables.lock", O_RDONLY | O_CREAT | O_CLOEXEC, 0600));
  if (!lock.valid()) result.emplace_back("XTABLES_LOCKFILE=/dev/null");
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

/// What the program says goes to |output|, if that is not null.
int run(const std::vector<std::string>& words, const std::string& purpose,
        const Firewall::Complain& complain, std::string* output = nullptr) {
  base::Program program;
  program.path = base::findProgram(words.front(), kPath);
  if (program.path.empty()) program.path = "/usr/sbin/" + words.front();
  program.words = words;
  program.environment = environment();
  program.descriptors =
      base::Program::Descriptors::kInherited;  // the keeper's pipe: see RuleKeeper
  base::ProgramRun run = base::run(program, {}, kTimeLimit);
  const int result = resultOf(run);
  if (result != 0) {
    complain(program.path + " failed with " + std::to_string(result) + " for " + purpose + ": " +
             reasonFor(result, run.errors));
  }
  if (output != nullptr) *output = std::move(run.output);
  return result;
}

/// The words that delete the rule of which |line| of "iptables -S" tells; none if it is not ours.
std::vector<std::string> deletionOf(const std::string& line, const char* program) {
  // -A CHAIN -o INTERFACE -j IDLETIMER --timeout SECONDS --label CT_INTERFACE
  std::istringstream stream(line);
  std::vector<std::string> words{program, "-w", "-t", "mangle"};
  words.insert(words.end(), std::istream_iterator<std::string>(stream), {});
  const bool ours = words.size() == 14 && words[4] == "-A" && words[9] == kIdleTimerTarget &&
                    words[13] == std::string(kIdleTimerLabelPrefix) + "_" + words[7];
  if (!ours) return {};
  words[4] = "-D";
  return words;
}

}  // namespace

void Firewall::logComplaint(const std::string& text) {
  HOST_LOG(kLogError, "firewall: %s", text.c_str());
}

int Firewall::add(const IdleTimerRule& rule) {
  int failure = 0;
  std::vector<const char*> ran;
  for (const char* program : kPrograms) {
    failure = run(rule.command(program, IdleTimerRule::Action::kAdd), rule.text(), complain_);
    if (failure != kNotRun) ran.push_back(program);
    if (failure != 0) break;
  }
  if (failure == 0) return 0;
  for (const char* program : ran) {
    if (!isDefinite(run(rule.command(program, IdleTimerRule::Action::kDelete), rule.text(),
                        ignoreComplaint))) {
      failure = kNotTakenBack;
    }
  }
  return failure;
}

int Firewall::remove(const IdleTimerRule& rule) {
  int result = 0;
  for (const char* program : kPrograms) {
    const int failure =
        run(rule.command(program, IdleTimerRule::Action::kDelete), rule.text(), complain_);
    if (failure != 0 && (result == 0 || !isDefinite(failure))) result = failure;
  }
  return result;
}

int Firewall::sweep() {
  // Without the module there was never a rule, and perhaps no iptables.
  if (!std::filesystem::exists("/sys/class/xt_idletimer")) return 0;
  int result = 0;
  for (const char* program : kPrograms) {
    std::string rules;
    result |= run({program, "-w", "-t", "mangle", "-S"}, "the list of rules", complain_, &rules);
    std::istringstream lines(rules);
    for (std::string line; std::getline(lines, line);) {
      const auto words = deletionOf(line, program);
      if (words.empty()) continue;
      HOST_LOG(kLogNotice, "deleting what was left: %s %s", program, line.c_str());
      result |= run(words, line, complain_);
    }
  }
  return result;
}

bool Firewall::isDefinite(int result) {
  return result != kTookTooLong && result != kKilled && result != kNotTakenBack &&
         result != kNotRun;
}

}  // namespace parent
