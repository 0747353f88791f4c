#include "lab/Process.h"

#include <fcntl.h>
#include <poll.h>
#include <sched.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>

#include "base/ArgumentVector.h"
#include "lab/Error.h"
#include "lab/NetNamespace.h"

// The numbers are the same on every architecture; older C libraries lack the wrappers.
#ifndef SYS_pidfd_open
#define SYS_pidfd_open 434
#endif
#ifndef SYS_close_range
#define SYS_close_range 436
#endif

namespace lab {
namespace {

using Clock = std::chrono::steady_clock;

constexpr unsigned kCloseRangeCloexec = 1U << 2U;
constexpr std::size_t kChunk = 65536;

struct Pipe {
  base::UniqueFd read;
  base::UniqueFd write;
};

Pipe makePipe() {
  std::array<int, 2> ends{};
  if (::pipe2(ends.data(), O_CLOEXEC) != 0) throw systemError("cannot create a pipe");
  return Pipe{base::UniqueFd(ends[0]), base::UniqueFd(ends[1])};
}

std::string searchPath() {
  const char* path = std::getenv("PATH");
  return std::string(path != nullptr ? path : "/usr/bin:/bin") + ":/usr/sbin:/sbin";
}

std::string findProgram(const std::string& name) {
  if (name.find('/') != std::string::npos) return name;
  const std::string path = searchPath();
  for (std::size_t begin = 0; begin <= path.size();) {
    const std::size_t end = std::min(path.find(':', begin), path.size());
    std::string candidate = path.substr(begin, end - begin) + "/" + name;
    if (::access(candidate.c_str(), X_OK) == 0) return candidate;
    begin = end + 1;
  }
  throw Error("cannot find the program '" + name + "' in " + path +
              " (install the Debian package that brings it; ip is in iproute2)");
}

std::vector<std::string> childEnvironment() {
  std::vector<std::string> result;
  for (char** entry = environ; *entry != nullptr; ++entry) {
    const std::string text(*entry);
    if (text.rfind("PATH=", 0) != 0 && text.rfind("XTABLES_LOCKFILE=", 0) != 0) {
      result.push_back(text);
    }
  }
  result.push_back("PATH=" + searchPath());
  // The legacy iptables locks a file under /run, which an unprivileged user may not create.
  // Nobody else works in the lab's namespaces, so any file that opens will do.
  result.emplace_back("XTABLES_LOCKFILE=/dev/null");
  return result;
}

struct ChildPlan {
  const char* program;
  char** argv;
  char** environment;
  int namespaceFd;
  int input;
  int output;
  int errors;
  int failure;
  pid_t parent;
};

// Between fork and exec only async-signal-safe calls are allowed: the parent has threads.
[[noreturn]] void becomeCommand(const ChildPlan& plan) {
  ::prctl(PR_SET_PDEATHSIG, SIGKILL);
  if (::getppid() != plan.parent) ::_exit(127);
  // A group of its own: the terminal's interrupt is for the lab, which ends its children itself.
  ::setpgid(0, 0);
  sigset_t none;
  ::sigemptyset(&none);
  ::sigprocmask(SIG_SETMASK, &none, nullptr);
  for (const int number : {SIGPIPE, SIGINT, SIGTERM}) ::signal(number, SIG_DFL);

  const bool ready = (plan.namespaceFd < 0 || ::setns(plan.namespaceFd, CLONE_NEWNET) == 0) &&
                     ::dup2(plan.input, STDIN_FILENO) >= 0 &&
                     ::dup2(plan.output, STDOUT_FILENO) >= 0 &&
                     ::dup2(plan.errors, STDERR_FILENO) >= 0;
  if (ready) {
    // Descriptors of the surrounding program that are not close-on-exec must not leak either.
    ::syscall(SYS_close_range, 3U, ~0U, kCloseRangeCloexec);
    ::execve(plan.program, plan.argv, plan.environment);
  }
  const int error = errno;
  if (::write(plan.failure, &error, sizeof error) < 0) ::_exit(126);
  ::_exit(127);
}

template <typename Call>
auto uninterrupted(Call&& call) {
  auto result = call();
  while (result < 0 && errno == EINTR) result = call();
  return result;
}

pid_t reap(pid_t pid, int* status) {
  return uninterrupted([pid, status] { return ::waitpid(pid, status, 0); });
}

std::string join(const std::vector<std::string>& argv) {
  std::string text;
  for (const std::string& word : argv) text += (text.empty() ? "" : " ") + word;
  return text;
}

int remainingMs(Clock::time_point deadline) {
  const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now()).count();
  return static_cast<int>(std::clamp<long long>(left, 0, 3'600'000));
}

/// Appends what can be read now. False at the end of the stream.
bool appendAvailable(int fd, std::string& text) {
  std::array<char, kChunk> buffer;
  const ssize_t got = ::read(fd, buffer.data(), buffer.size());
  if (got < 0) return errno == EINTR || errno == EAGAIN;
  text.append(buffer.data(), static_cast<std::size_t>(got));
  return got > 0;
}

/// write() that reports EPIPE instead of raising SIGPIPE in the surrounding program.
ssize_t writeQuietly(int fd, const char* data, std::size_t size) {
  sigset_t pipeOnly;
  sigset_t before;
  ::sigemptyset(&pipeOnly);
  ::sigaddset(&pipeOnly, SIGPIPE);
  ::pthread_sigmask(SIG_BLOCK, &pipeOnly, &before);
  const ssize_t written = ::write(fd, data, size);
  const int error = errno;
  if (written < 0 && error == EPIPE) {
    const timespec now{};
    ::sigtimedwait(&pipeOnly, nullptr, &now);
  }
  ::pthread_sigmask(SIG_SETMASK, &before, nullptr);
  errno = error;
  return written;
}

}  // namespace

std::string ExitStatus::text() const {
  if (signal == 0) return "exit code " + std::to_string(code);
  return "signal " + std::to_string(signal) + " (" + ::strsignal(signal) + ")";
}

Process::Process(const std::vector<std::string>& argv, const NetNamespace* where) {
  const std::string program = findProgram(argv.at(0));
  std::vector<std::string> arguments = argv;
  std::vector<std::string> environment = childEnvironment();
  std::vector<char*> argumentPointers = base::argumentVector(arguments);
  std::vector<char*> environmentPointers = base::argumentVector(environment);

  Pipe in = makePipe();
  Pipe out = makePipe();
  Pipe err = makePipe();
  Pipe failure = makePipe();
  const ChildPlan plan{program.c_str(),
                       argumentPointers.data(),
                       environmentPointers.data(),
                       where != nullptr ? where->fd() : -1,
                       in.read.get(),
                       out.write.get(),
                       err.write.get(),
                       failure.write.get(),
                       ::getpid()};
  pid_ = ::fork();
  if (pid_ < 0) throw systemError("cannot fork for " + program);
  if (pid_ == 0) becomeCommand(plan);

  failure.write.reset();
  int error = 0;
  const ssize_t got = uninterrupted(
      [&failure, &error] { return ::read(failure.read.get(), &error, sizeof error); });
  if (got == sizeof error) {
    reap(pid_, nullptr);
    throw systemError("cannot execute " + program, error);
  }
  pidFd_.reset(static_cast<int>(::syscall(SYS_pidfd_open, pid_, 0)));
  if (!pidFd_.valid()) {
    error = errno;
    ::kill(pid_, SIGKILL);
    reap(pid_, nullptr);
    throw systemError("cannot watch the process of " + program, error, "needs Linux 5.3");
  }
  input_ = std::move(in.write);
  output_ = std::move(out.read);
  errors_ = std::move(err.read);
}

Process::~Process() {
  if (reaped_) return;
  ::kill(pid_, SIGKILL);
  reap(pid_, nullptr);
}

CommandResult Process::run(const std::vector<std::string>& argv, const NetNamespace* where,
                           const std::string& input, std::chrono::milliseconds limit) {
  Process child(argv, where);
  CommandResult result;
  const Clock::time_point deadline = Clock::now() + limit;
  child.pump(input, limit, result);
  if (!child.waitFor(std::chrono::milliseconds(remainingMs(deadline)))) {
    throw Error("'" + join(argv) + "' was not done within " + std::to_string(limit.count()) +
                " ms and was killed; it said: " + result.output + result.errors);
  }
  result.status = child.status();
  return result;
}

std::string Process::runChecked(const std::vector<std::string>& argv, const NetNamespace* where,
                                const std::string& input) {
  CommandResult result = run(argv, where, input);
  if (result.status.success()) return std::move(result.output);
  throw Error("'" + join(argv) + "' ended with " + result.status.text() + ": " + result.errors +
              result.output + (input.empty() ? "" : "\nits input was:\n" + input));
}

void Process::runIpBatch(const NetNamespace& where, const std::string& lines) {
  runChecked({"ip", "-batch", "-"}, &where, lines);
}

void Process::pump(const std::string& input, std::chrono::milliseconds limit,
                   CommandResult& result) {
  const Clock::time_point deadline = Clock::now() + limit;
  ::fcntl(input_.get(), F_SETFL, O_NONBLOCK);
  std::size_t sent = 0;
  while (output_.valid() || errors_.valid()) {
    if (input_.valid() && sent == input.size()) input_.reset();
    // poll() passes over negative descriptors, which is what a closed UniqueFd holds.
    std::array<pollfd, 3> waits{pollfd{input_.get(), POLLOUT, 0}, pollfd{output_.get(), POLLIN, 0},
                                pollfd{errors_.get(), POLLIN, 0}};
    const int ready = ::poll(waits.data(), waits.size(), remainingMs(deadline));
    if (ready < 0 && errno == EINTR) continue;
    if (ready <= 0) return;
    if (waits[0].revents != 0) {
      const ssize_t n = writeQuietly(input_.get(), input.data() + sent, input.size() - sent);
      if (n > 0) sent += static_cast<std::size_t>(n);
      if (n < 0 && errno != EAGAIN && errno != EINTR) input_.reset();
    }
    if (waits[1].revents != 0 && !appendAvailable(output_.get(), result.output)) output_.reset();
    if (waits[2].revents != 0 && !appendAvailable(errors_.get(), result.errors)) errors_.reset();
  }
}

bool Process::write(const std::string& text) {
  for (std::size_t sent = 0; sent < text.size();) {
    const ssize_t n = writeQuietly(input_.get(), text.data() + sent, text.size() - sent);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) return false;
    sent += static_cast<std::size_t>(n);
  }
  return true;
}

void Process::signal(int number) const {
  if (!reaped_) ::kill(pid_, number);
}

bool Process::waitFor(std::chrono::milliseconds limit) {
  if (reaped_) return true;
  const Clock::time_point deadline = Clock::now() + limit;
  pollfd wait{pidFd_.get(), POLLIN, 0};
  const int ready =
      uninterrupted([&wait, deadline] { return ::poll(&wait, 1, remainingMs(deadline)); });
  if (ready <= 0) return false;

  int status = 0;
  if (reap(pid_, &status) != pid_) throw systemError("cannot collect an exit status");
  if (WIFSIGNALED(status)) {
    status_ = ExitStatus{-1, WTERMSIG(status)};
  } else {
    status_ = ExitStatus{WEXITSTATUS(status), 0};
  }
  reaped_ = true;
  return true;
}

}  // namespace lab
