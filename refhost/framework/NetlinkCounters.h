// What the process's netlink sockets have done: conntrack deletions and notifications.
#pragma once

#include <sys/timerfd.h>

#include <atomic>
#include <chrono>
#include <cstdint>

namespace framework {

/// Thread: any. A request is in |requested| and in exactly one of the others once it is answered.
struct DeletionCounters {
  std::atomic<std::uint64_t> requested{0};
  std::atomic<std::uint64_t> deleted{0};
  std::atomic<std::uint64_t> alreadyGone{0};  ///< ENOENT
  std::atomic<std::uint64_t> refused{0};      ///< any other error, not sent and not answered too

  /// A timerfd(2) that runs out when no request has been answered for a moment. Every answer sets
  /// it.
  const int quietTimer = timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC | TFD_NONBLOCK);
  void setQuietTimer() const;

  [[nodiscard]] std::uint64_t answered() const { return deleted + alreadyGone + refused; }
};

/// The process's counters.
DeletionCounters& deletionCounters();

/// Waits until every request has been answered and no other has come for a moment, for |limit| at
/// most. False when deletions still go on then.
[[nodiscard]] bool awaitDeletions(std::chrono::milliseconds limit);

/// Neighbour notifications that were handed to callbacks, and overruns that were survived.
struct NotificationCounters {
  std::atomic<std::uint64_t> delivered{0};
  std::atomic<std::uint64_t> overruns{0};  ///< ENOBUFS: the kernel dropped some
};

NotificationCounters& notificationCounters();

}  // namespace framework
