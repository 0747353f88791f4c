// A line of the log for what a flush has deleted.
#pragma once

#include <cstdint>

#include "refhost/framework/EventLoop.h"

namespace zanhost {

/// Logs one line (level 2) when a burst of deletions is over: every request has been answered, and
/// no other came for a moment. A burst is a flush, or several that went on at once; a flush that
/// finds nothing makes no line.
///
/// Thread: event thread. One in a process.
class DeletionReport {
 public:
  /// |loop| must outlive the object.
  explicit DeletionReport(framework::EventLoop& loop);
  ~DeletionReport();
  DeletionReport(const DeletionReport&) = delete;
  DeletionReport& operator=(const DeletionReport&) = delete;

 private:
  static void timerReady(int fd, void* cbData);
  void tell();

  framework::EventLoop& loop_;
  std::uint64_t seen_ = 0;                                     ///< requests at the last look
  std::uint64_t deleted_ = 0, alreadyGone_ = 0, refused_ = 0;  ///< that lines have told of
};

}  // namespace zanhost
