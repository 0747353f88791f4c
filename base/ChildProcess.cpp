// A child process, from its start to its end.
#include "base/ChildProcess.h"

#include <fcntl.h>
#include <sched.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstring>

#include "base/Deadline.h"
#include "base/MemoryFile.h"

// The numbers are the same on every architecture; older C libraries lack the wrappers.
#ifndef SYS_pidfd_open
#define SYS_pidfd_open 434
#endif
#ifndef SYS_close_range
#define SYS_close_range 436
#endif

namespace base {
namespace {

constexpr unsigned kCloseRangeCloexec = 1U << 2U;
constexpr int kNotRun = 127;

/// Pointers into |texts| and a null, as execve(2) takes them. It changes no text.
std::vector<char*> pointers(const std::vector<std::string>& texts) {
  std::vector<char*> result;
  result.reserve(texts.size() + 1);
  for (const std::string& text : texts) result.push_back(const_cast<char*>(text.c_str()));
  result.push_back(nullptr);
  return result;
}

/// What the child needs between fork and exec, where it must not touch memory of its own.
struct Image {
  const Program& program;
  const std::vector<char*> words = pointers(program.words);
  const std::vector<char*> environment = pointers(program.environment);
  const pid_t parent = getpid();
};

/// The child goes with the thread that forked it, also when that has ended already.
void followParent(pid_t parent) {
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  if (getppid() != parent) _exit(kNotRun);
}

bool takeStreams(const Program& program) {
  const int null = open("/dev/null", O_RDWR | O_CLOEXEC);
  const auto take = [null](int fd, int stream) { return dup2(fd < 0 ? null : fd, stream) >= 0; };
  return take(program.input, STDIN_FILENO) && take(program.output, STDOUT_FILENO) &&
         take(program.errors, STDERR_FILENO);
}

/// Only async-signal-safe calls: another thread may hold any lock. Says in |failure| why not.
[[noreturn]] void become(const Image& image, int failure) {
  followParent(image.parent);
  setpgid(0, 0);
  sigset_t none;
  sigemptyset(&none);
  sigprocmask(SIG_SETMASK, &none, nullptr);
  for (const int number : {SIGPIPE, SIGINT, SIGTERM}) signal(number, SIG_DFL);

  const Program& program = image.program;
  if ((program.networkNamespace < 0 || setns(program.networkNamespace, CLONE_NEWNET) == 0) &&
      takeStreams(program)) {
    if (program.descriptors == Program::Descriptors::kStreamsOnly) {
      syscall(SYS_close_range, 3U, ~0U, kCloseRangeCloexec);
    }
    execve(program.path.c_str(), image.words.data(), image.environment.data());
  }
  const int error = errno;
  [[maybe_unused]] const ssize_t written = write(failure, &error, sizeof error);
  _exit(kNotRun);
}

[[noreturn]] void perform(const std::function<void()>& work, pid_t parent) noexcept {
  followParent(parent);
  work();
  _exit(0);
}

template <typename Call>
auto uninterrupted(Call call) {
  auto result = call();
  while (result < 0 && errno == EINTR) result = call();
  return result;
}

}  // namespace

std::string ExitStatus::text() const {
  if (signal == 0) return "exit code " + std::to_string(code);
  return "signal " + std::to_string(signal) + " (" + strsignal(signal) + ")";
}

std::string findProgram(const std::string& name, const std::string& path) {
  if (name.find('/') != std::string::npos) return name;
  for (std::size_t begin = 0; begin <= path.size();) {
    const std::size_t end = std::min(path.find(':', begin), path.size());
    std::string candidate = path.substr(begin, end - begin) + "/" + name;
    if (access(candidate.c_str(), X_OK) == 0) return candidate;
    begin = end + 1;
  }
  return {};
}

ChildProcess::ChildProcess(const Program& program) {
  const Image image{program};
  std::array<int, 2> ends{-1, -1};
  if (pipe2(ends.data(), O_CLOEXEC) != 0) {
    error_ = errno;
    return;
  }
  const UniqueFd reading(ends[0]);
  UniqueFd writing(ends[1]);
  pid_ = fork();
  if (pid_ == 0) become(image, writing.get());
  watch();
  writing.reset();
  // Begun, the program closes the pipe.
  uninterrupted([&] { return read(reading.get(), &error_, sizeof error_); });
}

ChildProcess::ChildProcess(const std::function<void()>& work) {
  const pid_t self = getpid();
  pid_ = fork();
  if (pid_ == 0) perform(work, self);
  watch();
}

ChildProcess::~ChildProcess() {
  signal(SIGKILL);
  if (pid_ > 0 && !reaped_) uninterrupted([this] { return waitpid(pid_, nullptr, 0); });
}

void ChildProcess::watch() {
  if (pid_ < 0) {
    error_ = errno;
    return;
  }
  pidFd_.reset(static_cast<int>(syscall(SYS_pidfd_open, pid_, 0)));
}

void ChildProcess::signal(int number) const {
  if (pid_ > 0 && !reaped_) kill(pid_, number);
}

bool ChildProcess::hasEnded() {
  if (reaped_) return true;
  int status = 0;
  const pid_t ended = uninterrupted([&] { return waitpid(pid_, &status, WNOHANG); });
  reaped_ = ended != 0;
  if (ended == pid_ && WIFEXITED(status)) status_.code = WEXITSTATUS(status);
  if (ended == pid_ && WIFSIGNALED(status)) status_.signal = WTERMSIG(status);
  return reaped_;
}

bool ChildProcess::waitFor(std::chrono::steady_clock::duration limit) {
  const Deadline deadline(limit);
  while (!hasEnded()) {
    if (deadline.over()) return false;
    // poll() passes over -1, which is what kernels before 5.3 give: there one looks again and
    // again.
    pollfd end{pidFd_.get(), POLLIN, 0};
    poll(&end, 1, pidFd_.valid() ? deadline.remainingMs() : 1);
  }
  return true;
}

ProgramRun run(Program program, const std::string& input,
               std::chrono::steady_clock::duration limit) {
  const MemoryFile in(input);
  const MemoryFile out;
  const MemoryFile err;
  ProgramRun result;
  if (in.fd() < 0 || out.fd() < 0 || err.fd() < 0) {
    result.error = errno;
    return result;
  }
  program.input = in.fd();
  program.output = out.fd();
  program.errors = err.fd();
  ChildProcess child(program);
  result.error = child.error();
  if (result.error != 0) return result;
  result.tookTooLong = !child.waitFor(limit);
  result.status = child.status();
  result.output = out.content();
  result.errors = err.content();
  return result;
}

}  // namespace base
