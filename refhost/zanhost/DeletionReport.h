// A line of the log for what a flush has deleted.
#pragma once

#include <array>
#include <cstdint>

#include "refhost/framework/EventLoop.h"

namespace zanhost {

/// Logs one line (level 2) when a burst of deletions is over: every request has been answered, and
/// no other came for a moment. A burst is a flush, or several that went on at once; a flush that
/// finds nothing makes no line.
///
/// Thread: event thread. One in a process, which lives as long as |loop| turns.
class DeletionReport {
 public:
  explicit DeletionReport(framework::EventLoop& loop);

 private:
  static void timerReady(int fd, void* cbData);

  std::uint64_t seen_ = 0;               ///< requests at the last look
  std::array<std::uint64_t, 3> told_{};  ///< deleted, already gone, refused
};

}  // namespace zanhost
