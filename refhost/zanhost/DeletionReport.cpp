// When a burst of deletions is over, and what is said of it.
#include "refhost/zanhost/DeletionReport.h"

#include <poll.h>
#include <unistd.h>

#include <utility>

#include "refhost/framework/HostLog.h"
#include "refhost/framework/NetlinkCounters.h"

namespace zanhost {

DeletionReport::DeletionReport(framework::EventLoop& loop) : loop_(loop) {
  loop_.watch(framework::deletionCounters().burstTimer, timerReady, this, nullptr, POLLIN);
}

DeletionReport::~DeletionReport() {
  loop_.unwatch(framework::deletionCounters().burstTimer);
}

void DeletionReport::timerReady(int fd, void* cbData) {
  auto* self = static_cast<DeletionReport*>(cbData);
  framework::DeletionCounters& counters = framework::deletionCounters();
  std::uint64_t expirations = 0;
  if (read(fd, &expirations, sizeof(expirations)) != sizeof(expirations)) return;
  const std::uint64_t before = std::exchange(self->seen_, counters.requested);
  if (self->seen_ != before || self->seen_ != counters.answered()) {
    counters.setBurstTimer();
    return;
  }
  counters.rearm();
  self->tell();
}

void DeletionReport::tell() {
  const framework::DeletionCounters& counters = framework::deletionCounters();
  const auto since = [](std::uint64_t now, std::uint64_t& before) {
    return static_cast<unsigned long long>(now - std::exchange(before, now));
  };
  const auto deleted = since(counters.deleted, deleted_);
  const auto alreadyGone = since(counters.alreadyGone, alreadyGone_);
  const auto refused = since(counters.refused, refused_);
  if (deleted + alreadyGone + refused == 0) return;
  HOST_LOG(kLogNotice, "flush over: %llu deleted, %llu already gone, %llu refused", deleted,
           alreadyGone, refused);
}

}  // namespace zanhost
