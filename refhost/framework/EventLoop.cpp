// The reference host's event loop.
#include "refhost/framework/EventLoop.h"

#include <sys/epoll.h>

#include <cerrno>
#include <cstring>
#include <vector>

#include "refhost/framework/HostLog.h"

namespace framework {

EventLoop::EventLoop() : epoll_(epoll_create1(EPOLL_CLOEXEC)) {}

int EventLoop::watch(int fd, Handler ready, void* cbData, Handler second, unsigned int events) {
  unwatch(fd);
  const std::uint64_t tag = ++registrations_ << 32U | static_cast<std::uint32_t>(fd);
  epoll_event interest{events, {.u64 = tag}};
  errno = EINVAL;
  const bool taken = ready != nullptr && epoll_ctl(epoll_.get(), EPOLL_CTL_ADD, fd, &interest) == 0;
  if (!taken && errno != EPERM) {
    const int error = errno;
    HOST_LOG(kLogWarning, "event loop: cannot watch descriptor %d: %s", fd, std::strerror(error));
    errno = error;
    return -1;
  }
  watches_[fd] = Watch{ready, cbData, second, events, tag, !taken};
  return 0;
}

int EventLoop::unwatch(int fd) {
  const auto found = watches_.find(fd);
  if (found == watches_.end()) {
    errno = ENOENT;
    return -1;
  }
  const bool known = !found->second.alwaysReady;
  watches_.erase(found);
  return known ? epoll_ctl(epoll_.get(), EPOLL_CTL_DEL, fd, nullptr) : 0;
}

void EventLoop::turn(int timeoutMs) {
  constexpr int kMostAtOnce = 16;
  std::vector<epoll_event> happened;
  for (const auto& [fd, watch] : watches_) {
    if (watch.alwaysReady) happened.push_back({watch.events, {.u64 = watch.tag}});
  }
  const std::size_t files = happened.size();
  happened.resize(files + kMostAtOnce);
  const int count =
      epoll_wait(epoll_.get(), &happened[files], kMostAtOnce, files == 0 ? timeoutMs : 0);
  if (count < 0) {
    if (errno == EINTR) return;
    HOST_LOG(kLogError, "event loop: stopping: epoll_wait: %s", std::strerror(errno));
    stop();
    return;
  }
  happened.resize(files + static_cast<std::size_t>(count));
  for (const epoll_event& event : happened) report(event.data.u64, event.events);
}

void EventLoop::report(std::uint64_t tag, unsigned int happened) {
  const auto found = watches_.find(static_cast<int>(tag));
  if (found == watches_.end() || found->second.tag != tag) return;
  const Watch watch = found->second;
  const bool askedFor = (happened & watch.events) != 0;
  const Handler handler = askedFor || watch.second == nullptr ? watch.ready : watch.second;
  handler(found->first, watch.cbData);
}

void EventLoop::run() {
  stopped_ = false;
  while (!stopped_) turn(-1);
}

}  // namespace framework
