// A moment until which somebody waits, in the forms that waiting takes.
#pragma once

#include <poll.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <span>

namespace base {

class Deadline {
 public:
  using Clock = std::chrono::steady_clock;

  explicit Deadline(Clock::duration limit) : end_(Clock::now() + limit) {}

  [[nodiscard]] bool over() const { return Clock::now() >= end_; }

  /// For poll(2): rounded up, so that who has waited that long has reached the deadline; 0 when it
  /// is over.
  [[nodiscard]] int remainingMs() const {
    constexpr long long kMost = 3'600'000;
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(end_ - Clock::now()).count();
    return static_cast<int>(std::clamp<long long>(left, 0, kMost));
  }

 private:
  Clock::time_point end_;
};

/// poll(2) that signals do not end. False when |deadline| came first, and with errno for an error.
[[nodiscard]] inline bool awaitReady(std::span<pollfd> descriptors, const Deadline& deadline) {
  while (true) {
    const int ready = poll(descriptors.data(), descriptors.size(), deadline.remainingMs());
    if (ready > 0) return true;
    if (ready < 0 ? errno != EINTR : deadline.over()) return false;
  }
}

/// The same for |events| of one descriptor.
[[nodiscard]] inline bool awaitReady(int fd, short events, const Deadline& deadline) {
  pollfd one{fd, events, 0};
  return awaitReady(std::span(&one, 1), deadline);
}

}  // namespace base
