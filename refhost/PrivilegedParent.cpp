#include "refhost/PrivilegedParent.h"

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

#include "refhost/CommandServer.h"
#include "refhost/EventLoop.h"
#include "refhost/Firewall.h"
#include "refhost/HostLog.h"
#include "refhost/Privileges.h"
#include "refhost/RuleKeeper.h"
#include "refhost/UniqueFd.h"

namespace {

constexpr int kCannotStart = 1;
constexpr int kSignalBase = 128;

/// Results that are not iptables' own: the rule is none of ours; it is not taken on.
constexpr std::int32_t kNoSuchRule = 2;
constexpr std::int32_t kNotTaken = 3;

int fail(const char* what) {
  std::fprintf(stderr, "zanhost: %s: %s\n", what, std::strerror(errno));
  return kCannotStart;
}

/// Keeps the ledger of rules while it adds and deletes them.
std::int32_t execute(RuleKeeper& keeper, ZAN_COMMANDS command, const IdleTimerRule& rule) {
  Firewall firewall;
  if (command == ZAN_CMD_IDLETIMER_ADD_1 || command == ZAN_CMD_IDLETIMER_ADD_2) {
    if (!keeper.expect(rule)) return kNotTaken;
    const int result = firewall.add(rule);
    if (result != 0 && Firewall::isDefinite(result)) keeper.forget(rule);
    HOST_LOG(kHostTrace, "rule added: %s: %d", rule.text().c_str(), result);
    return result;
  }
  if (!keeper.knows(rule)) {
    HOST_LOG(kHostTrace, "no rule to delete: %s", rule.text().c_str());
    return kNoSuchRule;
  }
  const int result = firewall.remove(rule);
  if (Firewall::isDefinite(result)) keeper.forget(rule);
  HOST_LOG(kHostTrace, "rule deleted: %s: %d", rule.text().c_str(), result);
  return result;
}

/// The parent's life between the fork and the child's end.
class Supervisor {
 public:
  Supervisor(pid_t child, int channel, RuleKeeper& keeper)
      : child_(child), channel_(channel), server_(channel, [&](auto command, const auto& rule) {
          return execute(keeper, command, rule);
        }) {}

  /// Returns the child's exit code.
  int run(int signalFd) {
    loop_.watch(channel_, channelReady, this, nullptr, POLLIN);
    loop_.watch(signalFd, signalReady, this, nullptr, POLLIN);
    loop_.run();
    if (WIFEXITED(status_)) return WEXITSTATUS(status_);
    HOST_LOG(kHostError, "the process with the plug-in was killed by signal %d", WTERMSIG(status_));
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

  EventLoop loop_;
  pid_t child_;
  int channel_;
  CommandServer server_;
  int status_ = 0;
};

UniqueFd blockSignals() {
  sigset_t handled;
  sigemptyset(&handled);
  for (const int signal : {SIGINT, SIGTERM, SIGCHLD}) sigaddset(&handled, signal);
  sigprocmask(SIG_BLOCK, &handled, nullptr);
  return UniqueFd(signalfd(-1, &handled, SFD_CLOEXEC));
}

int runChild(const UniqueFd& channel, const std::function<int(int)>& host) {
  if (const auto failure = dropPrivileges()) {
    std::fprintf(stderr, "zanhost: %s\n", failure->c_str());
    return kCannotStart;
  }
  sigset_t ofParent;
  sigemptyset(&ofParent);
  sigaddset(&ofParent, SIGCHLD);
  sigprocmask(SIG_UNBLOCK, &ofParent, nullptr);
  return host(channel.get());
}

}  // namespace

int runUnderPrivilegedParent(LogSink::Format format, int logLevel,
                             const std::function<int(int)>& host) {
  RuleKeeper keeper(format);
  if (!keeper.valid()) return fail("cannot start the rule keeper");
  std::array<int, 2> ends{};
  if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends.data()) != 0) {
    return fail("no command channel");
  }
  UniqueFd parentEnd(ends[0]);
  UniqueFd childEnd(ends[1]);
  UniqueFd signals = blockSignals();
  const pid_t child = fork();
  if (child == -1) return fail("cannot fork");
  if (child == 0) {
    parentEnd.reset();
    signals.reset();
    keeper.release();
    return runChild(childEnd, host);
  }
  childEnd.reset();
  std::signal(SIGPIPE, SIG_IGN);
  const LogSink log(STDERR_FILENO, format, logLevel);
  return Supervisor(child, parentEnd.get(), keeper).run(signals.get());
}
