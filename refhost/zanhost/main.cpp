// zanhost: runs a connection-tracking plug-in on any Linux machine.
#include <fcntl.h>
#include <poll.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fstream>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "base/CommandLine.h"
#include "base/InterfaceName.h"
#include "base/UniqueFd.h"
#include "base/UnixAddress.h"
#include "refhost/framework/HostLog.h"
#include "refhost/framework/HostSides.h"
#include "refhost/framework/NetlinkCounters.h"
#include "refhost/framework/Properties.h"
#include "refhost/parent/Firewall.h"
#include "refhost/parent/IdleTimerSupport.h"
#include "refhost/parent/PrivilegedParent.h"
#include "refhost/parent/Privileges.h"
#include "refhost/zanhost/Command.h"
#include "refhost/zanhost/CommandConsole.h"
#include "refhost/zanhost/ControlClient.h"
#include "refhost/zanhost/ControlServer.h"
#include "refhost/zanhost/DeletionReport.h"
#include "refhost/zanhost/HostSession.h"
#include "refhost/zanhost/LogSink.h"
#include "refhost/zanhost/ParentWatch.h"
#include "refhost/zanhost/Plugin.h"
#include "refhost/zanhost/Preflight.h"

namespace zanhost {
namespace {

/// Exit codes: what was asked for is wrong; what was asked for cannot be had.
constexpr int kExitUsage = base::CommandLine::kWrongArguments;
constexpr int kExitUnavailable = 1;

constexpr char kNameAndVersion[] = "zanhost " ZAN_VERSION;

struct Options {
  std::string plugin = ZAN_INSTALLED_PLUGIN;
  std::vector<std::string> properties;
  std::string propertiesFile;
  std::string script;
  std::vector<std::string> wwan;
  std::vector<std::string> hotspot;
  std::string logFormat = "text";
  int logLevel = kLogNotice;
  bool sweep = false;
  std::string control;
  std::string connect;
  std::vector<std::string> command;
};

int fail(int code, const std::string& text) {
  std::fprintf(stderr, "zanhost: %s\n", text.c_str());
  return code;
}

/// Exit status, when the command line ends the program.
std::optional<int> readOptions(int argc, char** argv, Options& options) {
  return base::CommandLine(
             "Runs a connection-tracking plug-in as its host would, on any Linux machine.",
             "Commands:\n" + commandHelp() +
                 "\nThe end of the input does not end the host; 'quit', SIGINT and SIGTERM "
                 "do.")
      .text("--plugin", options.plugin, "the plug-in to load; the installed one unless given")
      .texts("--property", options.properties, "a system property, NAME=VALUE; repeatable")
      .text("--properties", options.propertiesFile, "a file of NAME=VALUE lines")
      .texts("--wwan", options.wwan, "a mobile-data interface to follow; repeatable")
      .texts("--hotspot", options.hotspot, "an access point whose stations are clients; repeatable")
      .text("--script", options.script, "read commands from this file, not standard input")
      .choice("--log-format", options.logFormat, {"text", "json", "journal"},
              "what standard error gets: lines of text, the default, of JSON, or with priorities")
      .number("--log-level", options.logLevel, kLogTrace, kLogError, "drop lines below this level")
      .text("--control", options.control, "take commands at a Unix socket of this path, too")
      .text("--connect", options.connect, "give COMMAND to the host with this control socket")
      .texts("COMMAND", options.command, "the command's words, for --connect")
      .flag("--sweep", options.sweep,
            "delete the idle-timer rules of all hosts here, such as killed ones, and end")
      .version(kNameAndVersion)
      .parse(argc, argv);
}

LogSink::Format logFormatOf(const Options& options) {
  if (options.logFormat == "json") return LogSink::Format::kJson;
  return options.logFormat == "journal" ? LogSink::Format::kJournal : LogSink::Format::kText;
}

/// The script's lines, or what is wrong with them: a script is checked before anything starts.
std::optional<std::string> readScript(const std::string& path, std::vector<std::string>& lines) {
  std::ifstream file(path);
  if (!file) return "cannot open the script " + path + ": " + std::strerror(errno);
  for (std::string line; std::getline(file, line);) {
    lines.push_back(line);
    const std::string error = parseCommand(line).error;
    if (!error.empty()) return path + ":" + std::to_string(lines.size()) + ": " + error;
  }
  if (file.bad()) return "cannot read the script " + path + ": " + std::strerror(errno);
  return std::nullopt;
}

std::optional<std::string> wrongInterfaceName(const Options& options) {
  for (const std::string& name : options.wwan) {
    if (!base::isInterfaceName(name)) return "--wwan: " + base::noInterfaceName(name);
  }
  for (const std::string& name : options.hotspot) {
    if (!base::isInterfaceName(name)) return "--hotspot: " + base::noInterfaceName(name);
  }
  return std::nullopt;
}

std::optional<std::string> takeProperties(const Options& options) {
  framework::PropertyStore& store = framework::PropertyStore::instance();
  if (!options.propertiesFile.empty()) {
    if (auto wrong = store.load(options.propertiesFile)) return wrong;
  }
  for (const std::string& property : options.properties) {
    if (auto wrong = store.assign(property)) return "--property: " + *wrong;
  }
  return std::nullopt;
}

/// Gives the log's own thread time to write what led to a crash, then lets it happen.
void pauseBeforeCrash(int signal) {
  constexpr timespec kPause{0, 200'000'000};
  nanosleep(&kPause, nullptr);
  raise(signal);
}

/// Blocks the signals that end the host and returns a descriptor that reports them. Before any
/// thread is started, so that all inherit the mask.
base::UniqueFd takeSignals() {
  std::signal(SIGPIPE, SIG_IGN);
  struct sigaction crash {};
  crash.sa_handler = pauseBeforeCrash;
  crash.sa_flags = static_cast<int>(SA_RESETHAND | SA_NODEFER);
  for (const int signal : {SIGABRT, SIGSEGV, SIGBUS}) sigaction(signal, &crash, nullptr);

  sigset_t ending;
  sigemptyset(&ending);
  sigaddset(&ending, SIGINT);
  sigaddset(&ending, SIGTERM);
  sigprocmask(SIG_BLOCK, &ending, nullptr);
  return base::UniqueFd(signalfd(-1, &ending, SFD_CLOEXEC));
}

/// Opens what the caller has left closed of the standard streams, so that no descriptor of ours
/// takes their place.
void fillStandardStreams() {
  int fd = open("/dev/null", O_RDWR);
  while (fd >= 0 && fd <= STDERR_FILENO) fd = open("/dev/null", O_RDWR);
  if (fd >= 0) close(fd);
}

void signalReady(int fd, void* cbData) {
  signalfd_siginfo info{};
  if (read(fd, &info, sizeof(info)) != sizeof(info)) return;
  HOST_LOG(kLogNotice, "signal %u: stopping", info.ssi_signo);
  static_cast<framework::EventLoop*>(cbData)->stop();
}

/// Sends |state| to the socket that a service manager has named, if there is one (sd_notify(3)).
void tellServiceManager(std::string_view state) {
  const char* variable = std::getenv("NOTIFY_SOCKET");
  if (variable == nullptr) return;
  std::string path(variable);
  if (path.starts_with('@')) path.front() = '\0';  // not in the file system (unix(7))
  const base::UnixAddress to(path);
  const base::UniqueFd socket(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  if (sendto(socket.get(), state.data(), state.size(), 0, to.get(), to.length()) >= 0) return;
  HOST_LOG(kLogWarning, "cannot tell the service manager: %s", std::strerror(errno));
}

/// The plug-in does not wait for its deletions: who ends the process gives up what is left of them.
void awaitLastDeletions() {
  constexpr std::chrono::seconds kLimit{2};
  if (framework::awaitDeletions(kLimit)) return;
  const framework::DeletionCounters& counters = framework::deletionCounters();
  HOST_LOG(kLogWarning,
           "deletions still go on after %lld s: given up, with %llu requests not answered",
           static_cast<long long>(kLimit.count()),
           static_cast<unsigned long long>(counters.requested - counters.answered()));
}

/// From the first event to the plug-in's end. Returns the exit code.
int runSession(const Options& options, const std::vector<std::string>& script,
               parent::Descriptors descriptors, Plugin& plugin, const base::UniqueFd& signals) {
  HostSession session(descriptors.channel);
  framework::EventLoop& loop = HostSides::loopOf(session.host().zanCom);
  const DeletionReport deletions(loop);
  loop.watch(signals.get(), signalReady, &loop, nullptr, POLLIN);
  if (!session.follow(options.wwan)) return kExitUnavailable;
  session.followHotspots(options.hotspot);
  if (plugin.start(session.host()) != 0) {
    return fail(kExitUnavailable, "the plug-in refused to start: init_ct_mgr did not return 0");
  }
  const ControlServer control(
      loop, descriptors.control,
      [&](const Command& command, AnswerQueue& asker) { session.execute(command, asker); });
  AnswerQueue answers(loop, STDOUT_FILENO);
  CommandConsole console(
      loop, [&](const Command& command) { session.execute(command, answers); },
      [](const std::string& error) { HOST_LOG(kLogError, "refused: %s", error.c_str()); });
  ParentWatch parent(loop, descriptors.channel, [&] { return console.finished(); });
  console.whenFinished([&] { parent.stopIfAlone(); });
  if (options.script.empty()) console.readFrom(STDIN_FILENO);
  for (const std::string& line : script) console.add(line);

  HOST_LOG(kLogNotice, "ready: %s is loaded", options.plugin.c_str());
  tellServiceManager("READY=1");
  loop.run();
  tellServiceManager("STOPPING=1");
  const int stopped = plugin.stop();
  HOST_LOG(kLogNotice, "stopped: deinit_ct_mgr returned %d", stopped);
  return stopped == 0 ? 0 : kExitUnavailable;
}

int runHost(const Options& options, const std::vector<std::string>& script,
            const std::optional<std::string>& warning, parent::Descriptors descriptors) {
  Plugin plugin(options.plugin);
  if (!plugin.loaded()) return fail(kExitUnavailable, plugin.error());
  if (const auto failure = parent::endLoading()) return fail(kExitUnavailable, *failure);
  if (const auto missing = missingKernelSupport()) return fail(kExitUnavailable, *missing);
  const base::UniqueFd signals = takeSignals();
  if (!signals.valid()) {
    return fail(kExitUnavailable, std::string("no signalfd: ") + std::strerror(errno));
  }
  // Deletion workers log until the process has ended.
  static LogSink& log = *new LogSink(STDERR_FILENO, logFormatOf(options), options.logLevel);
  HOST_LOG(kLogNotice, "%s", kNameAndVersion);
  if (warning) HOST_LOG(kLogWarning, "%s", warning->c_str());
  const int code = runSession(options, script, descriptors, plugin, signals);
  awaitLastDeletions();
  log.finish();
  return code;
}

int run(int argc, char** argv) {
  fillStandardStreams();
  Options options;
  if (const auto status = readOptions(argc, argv, options)) return *status;
  if (options.connect.empty() != options.command.empty()) {
    return fail(kExitUsage, "--connect PATH and COMMAND are given together");
  }
  if (!options.connect.empty()) return askHost(options.connect, options.command);
  if (options.sweep) {
    const LogSink log(STDERR_FILENO, logFormatOf(options), options.logLevel);
    return parent::Firewall().sweep() == 0 ? 0 : kExitUnavailable;
  }

  std::vector<std::string> script;
  if (!options.script.empty()) {
    if (const auto wrong = readScript(options.script, script)) return fail(kExitUsage, *wrong);
  }
  if (const auto wrong = wrongInterfaceName(options)) return fail(kExitUsage, *wrong);
  if (const auto wrong = takeProperties(options)) return fail(kExitUsage, *wrong);
  const auto warning = options.wwan.empty() ? std::nullopt : parent::missingIdleTimerSupport();
  const auto openLog = [&](int threshold) {
    return std::make_shared<LogSink>(STDERR_FILENO, logFormatOf(options), threshold);
  };
  return parent::runUnderPrivilegedParent(openLog, options.logLevel, options.control,
                                          [&](parent::Descriptors descriptors) {
                                            return runHost(options, script, warning, descriptors);
                                          });
}

}  // namespace
}  // namespace zanhost

int main(int argc, char** argv) {
  return zanhost::run(argc, argv);
}
