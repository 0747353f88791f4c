// What is said of deletions when they are over.
#include "refhost/zanhost/DeletionReport.h"

#include <fmt/format.h>
#include <poll.h>
#include <unistd.h>

#include <utility>

#include "refhost/framework/HostLog.h"
#include "refhost/framework/NetlinkCounters.h"

namespace zanhost {

DeletionReport::DeletionReport(framework::EventLoop& loop) {
  loop.watch(framework::deletionCounters().quietTimer, timerReady, this, nullptr, POLLIN);
}

void DeletionReport::timerReady(int fd, void* cbData) {
  auto* self = static_cast<DeletionReport*>(cbData);
  framework::DeletionCounters& counters = framework::deletionCounters();
  std::uint64_t expirations = 0;
  if (read(fd, &expirations, sizeof(expirations)) != sizeof(expirations)) return;
  const auto before =
      std::exchange(self->told_, {counters.deleted, counters.alreadyGone, counters.refused});
  if (self->told_ == before) return;
  const auto since = [&](std::size_t i) { return self->told_.at(i) - before.at(i); };
  HOST_LOG(kLogNotice, "%s",
           fmt::format("flush over: {} deleted, {} already gone, {} refused", since(0), since(1),
                       since(2))
               .c_str());
}

}  // namespace zanhost
