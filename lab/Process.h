// Programs that run in a network namespace of the lab.
#pragma once

#include <chrono>
#include <string>
#include <vector>

#include "base/ChildProcess.h"
#include "base/Patience.h"
#include "base/UniqueFd.h"

namespace lab {

class NetNamespace;

/// A child process in a network namespace, its standard streams connected to this process. No other
/// descriptor is inherited. See base::ChildProcess about the thread that starts it: the lab leaves
/// nothing running.
///
/// A program without a slash is looked up in PATH, /usr/sbin and /sbin.
class Process {
 public:
  /// Starts |argv| in |where| (nullptr: where the caller is). Throws Error if it cannot be
  /// executed.
  Process(const std::vector<std::string>& argv, const NetNamespace* where);

  /// Runs |argv| to its end with |input| on its standard input. Throws Error if it cannot be
  /// executed or is not done within |limit| (it is killed then); a bad exit status is the
  /// caller's to judge.
  [[nodiscard]] static base::ProgramRun run(const std::vector<std::string>& argv,
                                            const NetNamespace* where,
                                            const std::string& input = {},
                                            std::chrono::milliseconds limit = base::kPatience);

  /// Like run(), and throws Error with the command and what it said unless it succeeds.
  static std::string runChecked(const std::vector<std::string>& argv, const NetNamespace* where,
                                const std::string& input = {});

  /// Runs |lines|, commands of ip(8) without the "ip", in |where|. Throws Error as runChecked().
  static void runIpBatch(const NetNamespace& where, const std::string& lines);

  /// Writes all of |text| to the child's standard input. False if the child no longer reads.
  bool write(const std::string& text);

  /// The reading ends of the child's standard output and error; owned by this object.
  [[nodiscard]] int outputFd() const { return output_.ours.get(); }
  [[nodiscard]] int errorsFd() const { return errors_.ours.get(); }

  [[nodiscard]] pid_t pid() const { return child_.pid(); }
  void signal(int number) const { child_.signal(number); }
  /// Waits up to |limit|. False if the child still runs then.
  bool waitFor(std::chrono::milliseconds limit = base::kPatience) { return child_.waitFor(limit); }
  /// Valid once waitFor() returned true.
  [[nodiscard]] const base::ExitStatus& status() const { return child_.status(); }

 private:
  struct Stream {
    base::UniqueFd ours;
    base::UniqueFd theirs;
  };
  static Stream inputStream();
  static Stream outputStream();

  Stream input_ = inputStream();
  Stream output_ = outputStream();
  Stream errors_ = outputStream();
  base::ChildProcess child_;
};

}  // namespace lab
