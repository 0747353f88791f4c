// Sends the requests that delete conntrack entries.
#pragma once

#include <atomic>
#include <cstdint>
#include <list>

#include "ctmgr/NetlinkRequest.h"
#include "ctmgr/ZanConnTrackFilter.h"
#include "host/ZanNetlinkSocket.h"

namespace ctmgr {

/// All that a deletion worker needs once it has its lists. The manager and its workers share it,
/// and it outlives the manager with the last of them.
///
/// Thread: any, several at once; which of their requests reaches the kernel first is the socket's
/// business.
struct ConntrackDeleter {
  /// Sends one request per record, in list order. |entries| are of one family.
  void deleteV4(const std::list<ZanConnTrackFilter_s>& entries);
  void deleteV6(const std::list<ZanConnTrackFilter_s>& entries);

  /// False when the request could not be built; whether the kernel obeys is the socket's business.
  [[nodiscard]] bool send(const ConntrackTuple& tuple);

  /// Lives until the process ends, whoever goes before. Null without hotspot handling; set before
  /// there are workers.
  ZanNetlinkSocket* conntrackSocket = nullptr;

  /// Sequence number of the last request; consecutive whatever the worker.
  std::atomic<std::uint32_t> deleteSeq{0};
};

}  // namespace ctmgr
