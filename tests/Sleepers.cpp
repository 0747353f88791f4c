#include "tests/Sleepers.h"

#include <poll.h>

#include <condition_variable>
#include <ctime>
#include <mutex>

#include "base/Patience.h"

namespace {

/// Never destroyed: when the process ends there may be sleepers.
struct Pauses {
  std::mutex mutex;
  std::condition_variable changed;
  int going = 0;
  int ended = 0;  ///< how often wake() was called
  std::chrono::seconds last{0};
};
Pauses& pauses = *new Pauses;

}  // namespace

std::chrono::seconds sleepers::await() {
  std::unique_lock<std::mutex> lock(pauses.mutex);
  const bool asleep =
      pauses.changed.wait_for(lock, base::kPatience, [] { return pauses.going > 0; });
  return asleep ? pauses.last : std::chrono::seconds(0);
}

void sleepers::wake() {
  const std::lock_guard<std::mutex> lock(pauses.mutex);
  pauses.going = 0;
  ++pauses.ended;
  pauses.changed.notify_all();
}

extern "C" int nanosleep(const timespec* pause, timespec* /*left*/) {
  if (pause->tv_sec == 0) return ppoll(nullptr, 0, pause, nullptr);
  std::unique_lock<std::mutex> lock(pauses.mutex);
  ++pauses.going;
  pauses.last = std::chrono::seconds(pause->tv_sec);
  pauses.changed.notify_all();
  pauses.changed.wait(lock, [ended = pauses.ended] { return pauses.ended != ended; });
  return 0;
}
