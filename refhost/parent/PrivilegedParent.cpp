// The fork, and the parent's life until its child has ended.
#include "refhost/parent/PrivilegedParent.h"

#include <poll.h>
#include <sys/signalfd.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>

#include "base/UniqueFd.h"
#include "refhost/framework/EventLoop.h"
#include "refhost/framework/HostLog.h"
#include "refhost/parent/CommandServer.h"
#include "refhost/parent/ControlSocket.h"
#include "refhost/parent/Firewall.h"
#include "refhost/parent/Privileges.h"
#include "refhost/parent/RuleExecutor.h"
#include "refhost/parent/RuleKeeper.h"

namespace parent {
namespace {

constexpr int kCannotStart = 1;
constexpr int kSignalBase = 128;

int fail(const char* what) {
  std::fprintf(stderr, "zanhost: %s: %s\n", what, std::strerror(errno));
  return kCannotStart;
}

/// The parent's life between the fork and the child's end.
class Supervisor {
 public:
  Supervisor(pid_t child, int channel, RuleKeeper& keeper)
      : child_(child),
        channel_(channel),
        executor_(keeper, firewall_),
        server_(channel, [this](ZAN_COMMANDS command, const IdleTimerRule& rule) {
          return executor_.execute(command, rule);
        }) {}

  /// Returns the child's exit code.
  int run(int signalFd) {
    loop_.watch(channel_, channelReady, this, nullptr, POLLIN);
    loop_.watch(signalFd, signalReady, this, nullptr, POLLIN);
    loop_.run();
    if (WIFEXITED(status_)) return WEXITSTATUS(status_);
    HOST_LOG(kLogError, "the process with the plug-in was killed by signal %d", WTERMSIG(status_));
    return kSignalBase + WTERMSIG(status_);
  }

 private:
  static void channelReady(int fd, void* cbData) {
    auto* self = static_cast<Supervisor*>(cbData);
    if (!self->server_.serveOne()) self->loop_.unwatch(fd);
  }

  static void signalReady(int fd, void* cbData) {
    auto* self = static_cast<Supervisor*>(cbData);
    signalfd_siginfo info{};
    if (read(fd, &info, sizeof(info)) != sizeof(info)) return;
    if (info.ssi_signo != SIGCHLD) {
      kill(self->child_, SIGTERM);
    } else if (waitpid(self->child_, &self->status_, WNOHANG) == self->child_) {
      self->loop_.stop();
    }
  }

  framework::EventLoop loop_;
  pid_t child_;
  int channel_;
  Firewall firewall_;
  RuleExecutor executor_;
  CommandServer server_;
  int status_ = 0;
};

base::UniqueFd blockSignals() {
  sigset_t handled;
  sigemptyset(&handled);
  for (const int signal : {SIGINT, SIGTERM, SIGCHLD}) sigaddset(&handled, signal);
  sigprocmask(SIG_BLOCK, &handled, nullptr);
  return base::UniqueFd(signalfd(-1, &handled, SFD_CLOEXEC));
}

int runChild(Descriptors descriptors, const std::function<int(Descriptors)>& host) {
  if (const auto failure = dropPrivileges()) {
    std::fprintf(stderr, "zanhost: %s\n", failure->c_str());
    return kCannotStart;
  }
  sigset_t ofParent;
  sigemptyset(&ofParent);
  sigaddset(&ofParent, SIGCHLD);
  sigprocmask(SIG_UNBLOCK, &ofParent, nullptr);
  return host(descriptors);
}

}  // namespace

int runUnderPrivilegedParent(const framework::OpenLog& openLog, int logLevel,
                             const std::string& controlPath,
                             const std::function<int(Descriptors)>& host) {
  RuleKeeper keeper(openLog);
  if (!keeper.valid()) return fail("cannot start the rule keeper");
  std::array<int, 2> ends{};
  if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends.data()) != 0) {
    return fail("no command channel");
  }
  base::UniqueFd parentEnd(ends[0]);
  base::UniqueFd childEnd(ends[1]);
  base::UniqueFd control;
  if (!controlPath.empty()) control = listenAt(controlPath);
  if (!controlPath.empty() && !control.valid()) {
    return fail(("cannot listen at " + controlPath).c_str());
  }
  base::UniqueFd signals = blockSignals();
  const pid_t child = fork();
  if (child == -1) return fail("cannot fork");
  if (child == 0) {
    parentEnd.reset();
    signals.reset();
    keeper.release();
    return runChild({childEnd.get(), control.get()}, host);
  }
  childEnd.reset();
  control.reset();  // nobody can connect when the child has ended
  std::signal(SIGPIPE, SIG_IGN);
  const auto log = openLog(logLevel);
  const int code = Supervisor(child, parentEnd.get(), keeper).run(signals.get());
  if (!controlPath.empty()) unlink(controlPath.c_str());
  return code;
}

}  // namespace parent
