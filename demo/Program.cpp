// What the programs that play something in the lab have in common.
#include "demo/Program.h"

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <exception>
#include <thread>

#include "lab/UserNamespace.h"

namespace demo {
namespace {

constexpr int kFailed = 1;
constexpr int kInterrupted = 130;

std::atomic<bool> interrupted{false};
static_assert(std::atomic<bool>::is_always_lock_free, "set by a signal handler");

void catchSignals() {
  struct sigaction action {};
  action.sa_handler = [](int) { interrupted = true; };
  action.sa_flags = SA_RESTART;
  for (const int number : {SIGINT, SIGTERM}) ::sigaction(number, &action, nullptr);
}

}  // namespace

void Waiting::until(Clock::time_point when) const {
  constexpr std::chrono::milliseconds kLongestSleep{20};
  while (true) {
    if (interrupted_) throw Interrupted();
    const auto left = when - Clock::now();
    if (left <= left.zero()) return;
    std::this_thread::sleep_for(std::min<Clock::duration>(left, kLongestSleep));
  }
}

std::optional<Waiting::Clock::time_point> Waiting::until(const std::function<bool()>& condition,
                                                         Clock::duration limit,
                                                         std::chrono::milliseconds step) const {
  const base::Deadline deadline(limit);
  while (!condition()) {
    if (deadline.over()) return std::nullopt;
    until(Clock::now() + step);
  }
  return Clock::now();
}

int runProgram(const char* name, const std::function<void(const Waiting& waiting)>& play) {
  try {
    lab::UserNamespace::enterIfNeeded();
    catchSignals();
    play(Waiting(interrupted));
    return 0;
  } catch (const std::exception& error) {
    // A terminal interrupts the host too, so its end may be what is noticed first.
    const Interrupted interruption;
    std::fprintf(stderr, "\n%s: %s\n", name, interrupted ? interruption.what() : error.what());
    return interrupted ? kInterrupted : kFailed;
  }
}

}  // namespace demo
