// A timer of the event loop.
#pragma once

#include <chrono>
#include <functional>

#include "base/UniqueFd.h"
#include "refhost/framework/EventLoop.h"

namespace zanhost {

/// Thread: event thread.
class Timer {
 public:
  /// |eventLoop| must outlive the timer, and calls |expired| each time that it runs out.
  Timer(framework::EventLoop& eventLoop, std::function<void()> expired);
  ~Timer();
  Timer(const Timer&) = delete;
  Timer& operator=(const Timer&) = delete;

  /// Runs out once, after |delay| (0 and less: in the loop's next turn). Takes the place of what
  /// was set before.
  void set(std::chrono::nanoseconds delay);

 private:
  static void ready(int fd, void* cbData);

  framework::EventLoop& loop_;
  std::function<void()> expired_;
  base::UniqueFd fd_;
};

}  // namespace zanhost
