// What the reference host knows of itself and of the kernel, at one moment.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "host/Zan.h"

struct HostStatus {
  std::vector<std::string> clients;  ///< the list that event 27 carried last
  int kernelNeighbours;              ///< entries of the kernel's table; -1: not readable
  std::uint64_t notifications;       ///< netlink messages handed to the plug-in
  std::uint64_t overruns;            ///< times that the kernel had to drop some
  std::uint64_t requested;           ///< conntrack deletions, see DeletionCounters
  std::uint64_t deleted;
  std::uint64_t alreadyGone;
  std::uint64_t refused;

  /// One line:
  /// {"clients":[...],"neighbours":{"kernel":N,"events":N,"overruns":N},
  ///  "deletions":{"requested":N,"deleted":N,"alreadyGone":N,"refused":N}}
  [[nodiscard]] std::string json() const;

  /// The same for reading, a line each, without a final newline.
  [[nodiscard]] std::string text() const;
};

/// Event thread.
[[nodiscard]] HostStatus readHostStatus(Zan& zan);
