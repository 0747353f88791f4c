// The host program, running on the gateway.
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstddef>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "base/UniqueFd.h"
#include "lab/BuiltFile.h"
#include "lab/HostOutput.h"
#include "lab/Process.h"

namespace lab {

class NetNamespace;

/// The host program with the plug-in, running in the gateway's namespace: takes commands, and
/// everything it logs is kept.
///
/// A thread of this object collects the host's output; all members are for one other thread, the
/// one that created the object (see Process about its life).
class HostProcess {
 public:
  struct Options {
    /// Those of the build that the running program belongs to.
    std::string program = builtFile("refhost/zanhost/zanhost");
    std::string plugin = builtFile("ctmgr/vendor.libzanctmgr.so");
    /// "NAME=VALUE" each.
    std::vector<std::string> properties;
    /// Lines below this level are not logged: 0 all to 4 errors only.
    int logLevel = 2;
    /// Further command line words.
    std::vector<std::string> arguments;
    /// What becomes of a host that still runs when its HostProcess goes. Ended in order (SIGTERM),
    /// it deletes its rules first, and with them idle timers, which all of the machine can see.
    enum class End { kKilled, kInOrder } end = End::kKilled;
  };

  using LogLine = HostLogLine;
  using Predicate = std::function<bool(const LogLine&)>;

  /// Starts the host and returns when it reports that it is ready. Throws Error, with what the
  /// host logged, if it does not.
  HostProcess(const Options& options, const NetNamespace& where);
  /// See Options::end.
  ~HostProcess();
  HostProcess(const HostProcess&) = delete;
  HostProcess& operator=(const HostProcess&) = delete;

  /// Gives the host one command (without a newline) and returns the line it answers. Throws
  /// Error with the host's complaint if it refuses the command, and if no answer comes; after
  /// that, answers and commands may no longer match. Not for the textual "status", which answers
  /// several lines.
  std::string command(const std::string& text);

  /// What the host answers to "status json". Throws Error as command() does, and for an answer that
  /// cannot be read.
  [[nodiscard]] HostState status();

  /// The first log line for which |predicate| is true; waits for it to come, not beyond the host's
  /// end. |predicate| must not use this object.
  [[nodiscard]] std::optional<LogLine> waitForLog(const Predicate& predicate);
  [[nodiscard]] std::vector<LogLine> log() const;

  [[nodiscard]] pid_t pid() const { return process_.pid(); }

  /// Sends |signal| (0: none, the host ends by itself) and returns how the host ended; its log
  /// is complete then. Throws Error, and kills it, if it does not end.
  base::ExitStatus stop(int signal);

 private:
  void killAndJoin();
  void collect();
  void fileLog(const std::vector<std::string>& lines);
  /// How the host ended if its output has, otherwise |otherwise|; and what it said last.
  [[nodiscard]] std::string fate(const std::string& otherwise);
  [[nodiscard]] std::string logTail() const;

  Process process_;
  Options::End end_;
  base::UniqueFd stopCollecting_;

  mutable std::mutex mutex_;
  std::condition_variable changed_;
  std::vector<LogLine> log_;
  std::vector<std::string> answers_;
  std::atomic<bool> outputEnded_{false};

  std::thread collector_;
};

}  // namespace lab
