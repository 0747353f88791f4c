// The pauses of clean-ups, in the hands of the test.
#pragma once

#include <chrono>

/// Where this is linked, nobody's nanosleep(2) of a second or more returns before wake(), however
/// long that takes. Shorter ones take their time.
///
/// Thread: any.
namespace sleepers {

/// Waits until somebody sleeps. Returns how long a pause the last one has asked for; 0 when nobody
/// falls asleep.
std::chrono::seconds await();

/// Ends all pauses that are going on.
void wake();

}  // namespace sleepers
