// What the plays print.
#pragma once

#include <chrono>
#include <cstddef>
#include <stdexcept>
#include <string>

#include "lab/ConntrackTable.h"
#include "lab/HostProcess.h"
#include "lab/HotspotNetwork.h"

namespace demo {

/// A claim of the demo that the kernel's state does not bear out.
class CheckFailed : public std::runtime_error {
 public:
  CheckFailed(const std::string& claim, const std::string& expected, const std::string& seen)
      : std::runtime_error("FAILED: " + claim + "\n  expected: " + expected +
                           "\n  seen:     " + seen) {}
};

/// What a play prints, on standard output, as it happens.
class DemoReport {
 public:
  static constexpr std::size_t kWidth = 78;

  /// Whether there are moments in which nothing happens.
  enum class Pace { kForReaders, kAtOnce };
  /// That of a play whose output goes where it goes: readers sit at terminals.
  [[nodiscard]] static Pace usualPace();

  explicit DemoReport(Pace pace = usualPace()) : pace_(pace) {}

  /// The time in which somebody reads what an act has shown.
  [[nodiscard]] std::chrono::milliseconds moment() const;
  /// So many moments take an introduction.
  static constexpr int kIntroduction = 4;

  /// A paragraph, broken into lines that are indented as it begins.
  void say(const std::string& paragraph) const;
  /// Lines as they are.
  void show(const std::string& lines) const;
  /// Starts the next act.
  void act(const std::string& title);

  /// Prints |claim| and |seen| if |holds|; throws CheckFailed otherwise.
  void check(bool holds, const std::string& claim, const std::string& expected,
             const std::string& seen);
  /// The next act: ends |host| as a service manager would, and checks that it ended in order.
  void endHost(lab::HostProcess& host);
  /// The last line.
  void end() const;

  /// One row for each client of |network|: its TCP and UDP entries in |entries|.
  void table(const lab::HotspotNetwork& network, const lab::ConntrackEntries& entries) const;

 private:
  Pace pace_;
  unsigned act_ = 0;
  std::size_t checks_ = 0;
};

}  // namespace demo
