// Answers on their way to a reader who may stand still.
#pragma once

#include <chrono>
#include <cstddef>
#include <functional>
#include <string>
#include <utility>

#include "refhost/framework/EventLoop.h"

namespace zanhost {

/// Writes what a descriptor takes without blocking and keeps the rest, in order, until it takes
/// more. A reader who leaves more than kMostBytes unread is let go: what is kept is still written,
/// but no later answer.
///
/// Thread: event thread.
class AnswerQueue {
 public:
  static constexpr std::size_t kMostBytes = std::size_t{1} << 20U;

  /// |fd| stays the caller's; its flags, which others may share, stay as they are.
  AnswerQueue(framework::EventLoop& eventLoop, int fd,
              std::chrono::milliseconds lastPatience = kLastPatience);

  /// Gives a reader |lastPatience| for what is left; who was let go gets what is taken at once.
  ~AnswerQueue();
  AnswerQueue(const AnswerQueue&) = delete;
  AnswerQueue& operator=(const AnswerQueue&) = delete;

  void add(const std::string& text);

  /// Whether nothing waits for the reader; whether he was let go, or is gone.
  [[nodiscard]] bool empty() const { return queued_.empty(); }
  [[nodiscard]] bool letGo() const { return letGo_; }

  /// Calls |callback| when one of them has become true after a wait.
  void whenDone(std::function<void()> callback) { whenDone_ = std::move(callback); }

 private:
  static constexpr std::chrono::milliseconds kLastPatience{500};

  static void writable(int fd, void* cbData);
  void write();
  void giveUp(const char* why);

  framework::EventLoop& loop_;
  int fd_;
  std::size_t atOnce_;  ///< bytes that do not block when poll(2) reports room
  std::chrono::milliseconds lastPatience_;
  std::string queued_;
  std::function<void()> whenDone_ = [] {};
  bool letGo_ = false;
};

}  // namespace zanhost
