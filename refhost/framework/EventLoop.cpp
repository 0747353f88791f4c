#include "refhost/framework/EventLoop.h"

#include <poll.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <vector>

#include "refhost/framework/HostLog.h"

namespace framework {
namespace {

std::vector<EventLoop*>& liveLoops() {
  static std::vector<EventLoop*> loops;
  return loops;
}

}  // namespace

EventLoop::EventLoop() {
  liveLoops().push_back(this);
}

EventLoop::~EventLoop() {
  std::erase(liveLoops(), this);
}

int EventLoop::watch(int fd, Handler ready, void* cbData, Handler second, unsigned int events) {
  if (fd < 0 || ready == nullptr) {
    HOST_LOG(kLogWarning, "event loop: cannot watch descriptor %d%s", fd,
             ready == nullptr ? ": no handler" : "");
    errno = fd < 0 ? EBADF : EINVAL;
    return -1;
  }
  watches_[fd] = Watch{ready, cbData, second, static_cast<short>(events), ++generations_};
  return 0;
}

int EventLoop::unwatch(int fd) {
  if (watches_.erase(fd) != 0) return 0;
  errno = ENOENT;
  return -1;
}

void EventLoop::turn(int timeoutMs) {
  std::vector<pollfd> polled;
  std::vector<std::uint64_t> polledGenerations;
  for (const auto& [fd, watch] : watches_) {
    polled.push_back({fd, watch.events, 0});
    polledGenerations.push_back(watch.generation);
  }
  if (poll(polled.data(), polled.size(), timeoutMs) < 0) {
    if (errno == EINTR) return;
    HOST_LOG(kLogError, "event loop: stopping: poll: %s", std::strerror(errno));
    stop();
    return;
  }
  for (std::size_t i = 0; i < polled.size(); ++i) {
    if (polled[i].revents != 0) report(polled[i].fd, polledGenerations[i], polled[i].revents);
  }
}

void EventLoop::report(int fd, std::uint64_t generation, short happened) {
  const auto found = watches_.find(fd);
  if (found == watches_.end() || found->second.generation != generation) return;
  const Watch watch = found->second;
  if ((happened & POLLNVAL) != 0) {
    HOST_LOG(kLogWarning, "event loop: descriptor %d was closed while it was watched", fd);
    watches_.erase(found);
    return;
  }
  const bool askedFor = (happened & watch.events) != 0;
  const Handler handler = askedFor || watch.second == nullptr ? watch.ready : watch.second;
  handler(fd, watch.cbData);
}

void EventLoop::run() {
  stopped_ = false;
  while (!stopped_) turn(-1);
}

void EventLoop::descriptorClosing(int fd) {
  for (EventLoop* loop : liveLoops()) loop->watches_.erase(fd);
}

}  // namespace framework
