// A line of the log for what a flush has deleted.
#pragma once

#include <array>
#include <cstdint>

#include "refhost/framework/EventLoop.h"

namespace zanhost {

/// Logs one line (level 2) when no deletion has been answered for a moment: that is when a flush is
/// over, or several that went on at once. A flush that finds nothing makes no line.
///
/// Thread: event thread. One in a process, which lives as long as |loop| turns.
class DeletionReport {
 public:
  explicit DeletionReport(framework::EventLoop& loop);

 private:
  static void timerReady(int fd, void* cbData);

  std::array<std::uint64_t, 3> told_{};  ///< deleted, already gone, refused
};

}  // namespace zanhost
