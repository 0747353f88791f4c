// The process's counters, and the wait for its deletions.
#include "refhost/framework/NetlinkCounters.h"

#include <thread>

namespace framework {
namespace {

constexpr std::chrono::milliseconds kMoment{50};  // a worker takes much less from one to the next

}  // namespace

void DeletionCounters::setQuietTimer() const {
  itimerspec setting{};
  setting.it_value.tv_nsec = std::chrono::nanoseconds(kMoment).count();
  timerfd_settime(quietTimer, 0, &setting, nullptr);
}

DeletionCounters& deletionCounters() {
  static DeletionCounters counters;
  return counters;
}

NotificationCounters& notificationCounters() {
  static NotificationCounters counters;
  return counters;
}

bool awaitDeletions(std::chrono::milliseconds limit) {
  using Clock = std::chrono::steady_clock;
  constexpr std::chrono::milliseconds kStep{2};
  const DeletionCounters& counters = deletionCounters();
  const auto end = Clock::now() + limit;
  auto quietSince = Clock::now();
  std::uint64_t last = counters.requested;
  while (Clock::now() - quietSince < kMoment) {
    if (Clock::now() >= end) return false;
    std::this_thread::sleep_for(kStep);
    if (counters.requested != counters.answered() || counters.requested != last)
      quietSince = Clock::now();
    last = counters.requested;
  }
  return true;
}

}  // namespace framework
