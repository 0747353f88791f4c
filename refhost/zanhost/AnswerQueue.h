// Answers on their way to a reader who may stand still.
#pragma once

#include <chrono>
#include <cstddef>
#include <string>

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
  AnswerQueue(framework::EventLoop& eventLoop, int fd);

  /// Gives a reader kLastPatience for what is left; who was let go gets what is taken at once.
  ~AnswerQueue();
  AnswerQueue(const AnswerQueue&) = delete;
  AnswerQueue& operator=(const AnswerQueue&) = delete;

  void add(const std::string& text);

 private:
  static constexpr std::chrono::milliseconds kLastPatience{500};

  static void writable(int fd, void* cbData);
  void write();
  void letGo(const char* why);

  framework::EventLoop& loop_;
  int fd_;
  std::size_t atOnce_;  ///< bytes that do not block when poll(2) reports room
  std::string queued_;
  bool letGo_ = false;
};

}  // namespace zanhost
