#pragma once

#include <sys/types.h>

#include <chrono>
#include <string>
#include <vector>

#include "base/Patience.h"
#include "base/UniqueFd.h"

namespace lab {

class NetNamespace;

/// How a process ended: an exit code, or the signal that ended it (then |code| is -1).
struct ExitStatus {
  int code = -1;
  int signal = 0;

  [[nodiscard]] bool success() const { return signal == 0 && code == 0; }
  /// "exit code 1" or "signal 11 (Segmentation fault)".
  [[nodiscard]] std::string text() const;
};

struct CommandResult {
  ExitStatus status;
  std::string output;
  std::string errors;
};

/// A child process in a network namespace, its standard streams piped to this process. No shell
/// is involved, and no descriptor but the three streams is inherited.
///
/// The child is killed by the kernel when the thread that spawned it ends, however it ends: the
/// lab leaves nothing running. Spawn from the main thread, or from one that outlives the child.
class Process {
 public:
  /// Starts |argv| in |where| (nullptr: where the caller is). A program without a slash is
  /// looked up in PATH, /usr/sbin and /sbin. Throws Error if it cannot be executed.
  Process(const std::vector<std::string>& argv, const NetNamespace* where);
  /// Kills and reaps the child if it still runs.
  ~Process();
  Process(const Process&) = delete;
  Process& operator=(const Process&) = delete;

  /// Runs |argv| to its end with |input| on its standard input. Throws Error if it cannot be
  /// executed or is not done within |limit| (it is killed then); a bad exit status is the
  /// caller's to judge.
  [[nodiscard]] static CommandResult run(const std::vector<std::string>& argv,
                                         const NetNamespace* where, const std::string& input = {},
                                         std::chrono::milliseconds limit = base::kPatience);

  /// Like run(), and throws Error with the command and what it said unless it succeeds.
  static std::string runChecked(const std::vector<std::string>& argv, const NetNamespace* where,
                                const std::string& input = {});

  /// Runs |lines|, commands of ip(8) without the "ip", in |where|. Throws Error as runChecked().
  static void runIpBatch(const NetNamespace& where, const std::string& lines);

  /// Writes all of |text| to the child's standard input. False if the child no longer reads.
  bool write(const std::string& text);
  void closeInput() { input_.reset(); }

  [[nodiscard]] pid_t pid() const { return pid_; }
  /// The reading ends of the child's standard output and error; owned by this object.
  [[nodiscard]] int outputFd() const { return output_.get(); }
  [[nodiscard]] int errorsFd() const { return errors_.get(); }

  void signal(int number) const;
  /// Waits up to |limit|. False if the child still runs then.
  bool waitFor(std::chrono::milliseconds limit = base::kPatience);
  [[nodiscard]] bool ended() const { return reaped_; }
  /// Valid once waitFor() returned true.
  [[nodiscard]] const ExitStatus& status() const { return status_; }

 private:
  void pump(const std::string& input, std::chrono::milliseconds limit, CommandResult& result);

  pid_t pid_ = -1;
  base::UniqueFd pidFd_;
  base::UniqueFd input_;
  base::UniqueFd output_;
  base::UniqueFd errors_;
  bool reaped_ = false;
  ExitStatus status_;
};

}  // namespace lab
