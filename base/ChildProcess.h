// A child process, from its start to its end.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <functional>
#include <string>
#include <vector>

#include "base/UniqueFd.h"

namespace base {

/// How a process ended: an exit code, or the signal that ended it (then |code| is -1).
struct ExitStatus {
  int code = -1;
  int signal = 0;

  [[nodiscard]] bool success() const { return signal == 0 && code == 0; }
  /// "exit code 1" or "signal 11 (Segmentation fault)".
  [[nodiscard]] std::string text() const;
};

/// A program and what it gets from whoever starts it. No shell is involved.
struct Program {
  enum class Descriptors {
    kStreamsOnly,
    kInherited  ///< also those of this process that are not close-on-exec
  };

  std::string path;
  std::vector<std::string> words;        ///< the first one is its name
  std::vector<std::string> environment;  ///< "NAME=value" each

  // Descriptors, which remain the caller's.
  int input = -1;  ///< -1: /dev/null, here and for the other two streams
  int output = -1;
  int errors = -1;
  int networkNamespace = -1;  ///< -1: the caller's
  Descriptors descriptors = Descriptors::kStreamsOnly;
};

/// Where the program |name| is, |path| being a list of folders as in PATH; empty if nowhere. A name
/// with a slash is a path already.
[[nodiscard]] std::string findProgram(const std::string& name, const std::string& path);

/// A child of this process. The kernel kills it when the thread that started it ends, however that
/// ends: start it from the main thread, or from one that outlives the child. Throws nothing.
///
/// Thread: one, and signal() any.
class ChildProcess {
 public:
  /// Starts |program|, in a process group of its own: a terminal's signals are its parent's
  /// business. Signals are neither blocked nor, those that end processes, ignored. The caller may
  /// have threads.
  explicit ChildProcess(const Program& program);

  /// Calls |work| in a copy of this process, which ends with exit code 0 right after, whatever
  /// threads it has, and is aborted if |work| throws. The caller must have no other threads.
  explicit ChildProcess(const std::function<void()>& work);

  /// Kills the child if it still runs.
  ~ChildProcess();
  ChildProcess(const ChildProcess&) = delete;
  ChildProcess& operator=(const ChildProcess&) = delete;

  /// 0, or the errno with which the child could not be started. Then there is none.
  [[nodiscard]] int error() const { return error_; }
  [[nodiscard]] pid_t pid() const { return pid_; }

  void signal(int number) const;

  /// Waits up to |limit|. False if the child still runs then.
  bool waitFor(std::chrono::steady_clock::duration limit);
  /// Valid once waitFor() returned true.
  [[nodiscard]] const ExitStatus& status() const { return status_; }

 private:
  void watch();
  bool hasEnded();

  pid_t pid_ = -1;
  UniqueFd pidFd_;
  int error_ = 0;
  bool reaped_ = false;
  ExitStatus status_;
};

/// What came of a program that was run to its end.
struct ProgramRun {
  int error = 0;  ///< see ChildProcess::error()
  bool tookTooLong = false;
  ExitStatus status;  ///< valid if neither
  std::string output;
  std::string errors;
};

/// Runs |program| with |input| on its standard input, and kills it if it is not done within
/// |limit|.
[[nodiscard]] ProgramRun run(Program program, const std::string& input,
                             std::chrono::steady_clock::duration limit);

}  // namespace base
