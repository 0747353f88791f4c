// Answers written as far as their reader takes them.
#include "refhost/zanhost/AnswerQueue.h"

#include <poll.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstring>
#include <string_view>
#include <utility>

#include "refhost/framework/HostLog.h"
#include "refhost/zanhost/TimedWrite.h"

namespace zanhost {

// A terminal reports room for a single byte too, and would block for more.
AnswerQueue::AnswerQueue(framework::EventLoop& eventLoop, int fd,
                         std::chrono::milliseconds lastPatience)
    : loop_(eventLoop),
      fd_(fd),
      atOnce_(isatty(fd) != 0 ? 1 : PIPE_BUF),
      lastPatience_(lastPatience) {}

AnswerQueue::~AnswerQueue() {
  using Clock = std::chrono::steady_clock;
  constexpr int kLookMs = 10;
  loop_.unwatch(fd_);
  write();
  const auto end = Clock::now() + lastPatience_;
  while (!queued_.empty() && !letGo_ && Clock::now() < end) {
    pollfd waiting{fd_, POLLOUT, 0};
    poll(&waiting, 1, kLookMs);
    write();
  }
}

void AnswerQueue::add(const std::string& text) {
  if (letGo_) return;
  if (queued_.size() > kMostBytes) {
    giveUp("nobody reads them");
    return;
  }
  const bool waiting = !empty();
  queued_ += text;
  write();
  if (!queued_.empty() && !waiting) loop_.watch(fd_, writable, this, nullptr, POLLOUT);
}

void AnswerQueue::writable(int fd, void* cbData) {
  auto* self = static_cast<AnswerQueue*>(cbData);
  self->write();
  if (!self->queued_.empty()) return;
  self->loop_.unwatch(fd);
  self->whenDone_();
}

void AnswerQueue::write() {
  std::string_view rest = queued_;
  if (!writeTimed(fd_, rest, std::chrono::milliseconds(0), atOnce_) && errno != ETIMEDOUT) {
    rest = {};
    giveUp(std::strerror(errno));
  }
  queued_.erase(0, queued_.size() - rest.size());
}

void AnswerQueue::giveUp(const char* why) {
  if (std::exchange(letGo_, true)) return;
  HOST_LOG(kLogWarning, "answers are dropped from now on: %s", why);
  whenDone_();
}

}  // namespace zanhost
