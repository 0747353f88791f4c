#include "refhost/parent/Firewall.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <ctime>

#include "base/ArgumentVector.h"
#include "base/UniqueFd.h"
#include "refhost/framework/HostLog.h"

namespace parent {
namespace {

using Clock = std::chrono::steady_clock;

constexpr std::chrono::seconds kTimeLimit{10};
constexpr int kTookTooLong = 124;
constexpr int kKilled = 125;
constexpr int kNotTakenBack = 126;
constexpr int kNotRun = Firewall::kNotRun;

constexpr std::array kPrograms{"iptables", "ip6tables"};

/// Where the two programs live on Debian and on Android.
constexpr std::array kDirectories{"/usr/sbin/", "/sbin/", "/system/bin/"};

/// All that the programs see of an environment.
std::vector<std::string> environment() {
  std::vector<std::string> result{"PATH=/usr/sbin:/usr/bin:/sbin:/bin:/system/bin", "LC_ALL=C"};
  // Whoever cannot write the machine's lock file, as in a user namespace, has tables of his own.
  if (access("/run", W_OK) != 0) result.emplace_back("XTABLES_LOCKFILE=/dev/null");
  return result;
}

std::string findProgram(const std::string& name) {
  for (const char* directory : kDirectories) {
    std::string path = directory + name;
    if (access(path.c_str(), X_OK) == 0) return path;
  }
  return kDirectories.front() + name;
}

/// Never returns: becomes the program, its standard error going to |errors|. Everything that
/// needs memory has been prepared, since the caller may have threads.
[[noreturn]] void become(const char* path, char* const* words, char* const* variables, int errors,
                         pid_t parent) {
  setpgid(0, 0);  // a terminal's signals are the host's business
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  if (getppid() != parent) _exit(kNotRun);
  sigset_t none;
  sigemptyset(&none);
  sigprocmask(SIG_SETMASK, &none, nullptr);
  dup2(open("/dev/null", O_RDWR | O_CLOEXEC), STDIN_FILENO);
  dup2(STDIN_FILENO, STDOUT_FILENO);
  dup2(errors, STDERR_FILENO);
  execve(path, words, variables);
  _exit(kNotRun);
}

int millisecondsUntil(Clock::time_point deadline) {
  const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now()).count();
  return static_cast<int>(std::max<decltype(left)>(left, 0));
}

/// What the program says until it closes its standard error, at most until |deadline|.
std::string readWords(int fd, Clock::time_point deadline) {
  constexpr std::size_t kMost = 4096;
  std::string said;
  for (;;) {
    pollfd waiting{fd, POLLIN, 0};
    const int ready = poll(&waiting, 1, millisecondsUntil(deadline));
    if (ready < 0 && errno == EINTR) continue;
    if (ready <= 0) return said;
    std::array<char, 1024> bytes;
    const ssize_t count = read(fd, bytes.data(), bytes.size());
    if (count <= 0) return said;
    if (said.size() < kMost) said.append(bytes.data(), static_cast<std::size_t>(count));
  }
}

/// Waits for |child|, and kills it at |deadline|. Its exit code, kTookTooLong or kKilled.
int await(pid_t child, Clock::time_point deadline) {
  constexpr timespec kStep{0, 2'000'000};
  int status = 0;
  bool killed = false;
  while (waitpid(child, &status, WNOHANG) == 0) {
    if (!killed && millisecondsUntil(deadline) == 0) {
      kill(child, SIGKILL);
      killed = true;
    }
    nanosleep(&kStep, nullptr);
  }
  if (killed) return kTookTooLong;
  return WIFEXITED(status) ? WEXITSTATUS(status) : kKilled;
}

void ignoreComplaint(const std::string& /*text*/) {}

int run(std::vector<std::string> words, const IdleTimerRule& rule,
        const Firewall::Complain& complain) {
  std::array<int, 2> ends{};
  if (pipe2(ends.data(), O_CLOEXEC) != 0) return kNotRun;
  const base::UniqueFd reading(ends[0]);
  base::UniqueFd writing(ends[1]);
  const std::string path = findProgram(words.front());
  std::vector<std::string> variables = environment();
  const std::vector<char*> arguments = base::argumentVector(words);
  const std::vector<char*> environmentVector = base::argumentVector(variables);
  const pid_t self = getpid();
  const pid_t child = fork();
  if (child == -1) return kNotRun;
  if (child == 0) {
    become(path.c_str(), arguments.data(), environmentVector.data(), writing.get(), self);
  }
  writing.reset();
  const auto deadline = Clock::now() + kTimeLimit;
  std::string said = readWords(reading.get(), deadline);
  while (!said.empty() && said.back() == '\n') said.pop_back();
  const int code = await(child, deadline);
  if (code != 0) {
    complain(path + " failed with " + std::to_string(code) + " for " + rule.text() + ": " +
             (code == kNotRun        ? "it could not be run"
              : code == kTookTooLong ? "it took too long and was killed"
                                     : said));
  }
  return code;
}

}  // namespace

void Firewall::logComplaint(const std::string& text) {
  HOST_LOG(kLogError, "firewall: %s", text.c_str());
}

int Firewall::add(const IdleTimerRule& rule) {
  int failure = 0;
  std::vector<const char*> ran;
  for (const char* program : kPrograms) {
    failure = run(rule.command(program, true), rule, complain_);
    if (failure != kNotRun) ran.push_back(program);
    if (failure != 0) break;
  }
  if (failure == 0) return 0;
  for (const char* program : ran) {
    if (!isDefinite(run(rule.command(program, false), rule, ignoreComplaint))) {
      failure = kNotTakenBack;
    }
  }
  return failure;
}

int Firewall::remove(const IdleTimerRule& rule) {
  int result = 0;
  for (const char* program : kPrograms) {
    const int failure = run(rule.command(program, false), rule, complain_);
    if (failure != 0 && (result == 0 || !isDefinite(failure))) result = failure;
  }
  return result;
}

bool Firewall::isDefinite(int result) {
  return result != kTookTooLong && result != kKilled && result != kNotTakenBack &&
         result != kNotRun;
}

}  // namespace parent
