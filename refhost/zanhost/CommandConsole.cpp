// Lines from a descriptor, carried out one a turn.
#include "refhost/zanhost/CommandConsole.h"

#include <poll.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <utility>
#include <variant>

namespace zanhost {

CommandConsole::CommandConsole(framework::EventLoop& eventLoop, Execute onCommand,
                               Refuse onWrongLine)
    : loop_(eventLoop),
      execute_(std::move(onCommand)),
      refuse_(std::move(onWrongLine)),
      timer_(loop_, [this] { carryOutNext(); }) {}

CommandConsole::~CommandConsole() {
  if (input_ != -1) loop_.unwatch(input_);
}

void CommandConsole::readFrom(int fd) {
  input_ = fd;
  loop_.watch(fd, inputReady, this, nullptr, POLLIN);
}

void CommandConsole::add(const std::string& line) {
  lines_.push_back(line);
  if (!scheduled_) schedule(std::chrono::milliseconds(0));
}

void CommandConsole::inputReady(int fd, void* cbData) {
  auto* self = static_cast<CommandConsole*>(cbData);
  std::array<char, 4096> bytes;
  const ssize_t count = read(fd, bytes.data(), bytes.size());
  if (count < 0 && (errno == EINTR || errno == EAGAIN)) return;
  if (count <= 0) {
    self->loop_.unwatch(fd);
    self->input_ = -1;
    if (!self->unfinished_.empty()) self->add(std::exchange(self->unfinished_, {}));
    if (self->finished()) self->whenFinished_();
    return;
  }
  self->unfinished_.append(bytes.data(), static_cast<std::size_t>(count));
  self->split();
  if (self->lines_.size() < kMostPending) return;
  self->loop_.unwatch(fd);
  self->paused_ = true;
}

/// Takes the complete lines out of what was read.
void CommandConsole::split() {
  std::size_t start = 0;
  for (std::size_t end; (end = unfinished_.find('\n', start)) != std::string::npos;
       start = end + 1) {
    if (!std::exchange(discarding_, false)) add(unfinished_.substr(start, end - start));
  }
  unfinished_.erase(0, start);
  if (unfinished_.size() <= kLongestLine) return;
  if (!discarding_) refuse_("a line of more than 65536 characters; it is left out");
  discarding_ = true;
  unfinished_.clear();
}

void CommandConsole::schedule(std::chrono::milliseconds delay) {
  timer_.set(delay);
  scheduled_ = true;
}

void CommandConsole::carryOutNext() {
  scheduled_ = false;
  if (lines_.empty()) {
    if (finished()) whenFinished_();
    return;
  }
  const ParsedLine parsed = parseCommand(lines_.front());
  lines_.pop_front();
  if (paused_ && lines_.size() < kMostPending) {
    paused_ = false;
    loop_.watch(input_, inputReady, this, nullptr, POLLIN);
  }

  std::chrono::milliseconds delay{0};
  if (!parsed.error.empty()) refuse_(parsed.error);
  if (parsed.command) {
    execute_(*parsed.command);
    if (const auto* wait = std::get_if<WaitCommand>(&*parsed.command)) delay = wait->time;
  }
  // Also without a line at hand: a wait counts for lines that are still to come.
  if (!lines_.empty() || delay.count() != 0) schedule(delay);
  if (finished()) whenFinished_();
}

}  // namespace zanhost
