// A timer of the event loop, over timerfd_create(2).
#include "refhost/zanhost/Timer.h"

#include <poll.h>
#include <sys/timerfd.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <utility>

namespace zanhost {

Timer::Timer(framework::EventLoop& eventLoop, std::function<void()> expired)
    : loop_(eventLoop),
      expired_(std::move(expired)),
      fd_(timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC | TFD_NONBLOCK)) {
  loop_.watch(fd_.get(), ready, this, nullptr, POLLIN);
}

Timer::~Timer() {
  loop_.unwatch(fd_.get());
}

void Timer::set(std::chrono::nanoseconds delay) {
  constexpr std::chrono::nanoseconds kAtOnce{1};  // a timer of zero would be off
  const std::chrono::nanoseconds time = std::max(delay, kAtOnce);
  const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(time);
  itimerspec setting{};
  setting.it_value.tv_sec = static_cast<decltype(setting.it_value.tv_sec)>(seconds.count());
  setting.it_value.tv_nsec =
      static_cast<decltype(setting.it_value.tv_nsec)>((time - seconds).count());
  timerfd_settime(fd_.get(), 0, &setting, nullptr);
}

void Timer::ready(int fd, void* cbData) {
  std::uint64_t expirations = 0;
  if (read(fd, &expirations, sizeof(expirations)) != sizeof(expirations)) return;
  static_cast<Timer*>(cbData)->expired_();
}

}  // namespace zanhost
