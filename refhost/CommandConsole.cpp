#include "refhost/CommandConsole.h"

#include <poll.h>
#include <sys/timerfd.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdint>
#include <utility>
#include <variant>

namespace {

/// A timer of zero would be off.
constexpr std::chrono::nanoseconds kAtOnce{1};

timespec toTimespec(std::chrono::nanoseconds time) {
  const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(time);
  timespec result{};
  result.tv_sec = static_cast<std::time_t>(seconds.count());
  result.tv_nsec = static_cast<decltype(result.tv_nsec)>((time - seconds).count());
  return result;
}

}  // namespace

CommandConsole::CommandConsole(EventLoop& eventLoop, Execute onCommand, Refuse onWrongLine)
    : loop(eventLoop),
      execute(std::move(onCommand)),
      refuse(std::move(onWrongLine)),
      timer(timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC | TFD_NONBLOCK)) {
  loop.watch(timer.get(), timerReady, this, nullptr, POLLIN);
}

CommandConsole::~CommandConsole() {
  loop.unwatch(timer.get());
  if (input != -1) loop.unwatch(input);
}

void CommandConsole::readFrom(int fd) {
  input = fd;
  loop.watch(fd, inputReady, this, nullptr, POLLIN);
}

void CommandConsole::add(const std::string& line) {
  lines.push_back(line);
  if (!scheduled) schedule(std::chrono::milliseconds(0));
}

void CommandConsole::inputReady(int fd, void* cbData) {
  auto* self = static_cast<CommandConsole*>(cbData);
  std::array<char, 4096> bytes;
  const ssize_t count = read(fd, bytes.data(), bytes.size());
  if (count < 0 && (errno == EINTR || errno == EAGAIN)) return;
  if (count <= 0) {
    self->loop.unwatch(fd);
    self->input = -1;
    if (!self->unfinished.empty()) self->add(std::exchange(self->unfinished, {}));
    return;
  }
  self->unfinished.append(bytes.data(), static_cast<std::size_t>(count));
  std::size_t start = 0;
  for (std::size_t end; (end = self->unfinished.find('\n', start)) != std::string::npos;
       start = end + 1) {
    self->add(self->unfinished.substr(start, end - start));
  }
  self->unfinished.erase(0, start);
}

void CommandConsole::timerReady(int fd, void* cbData) {
  std::uint64_t expirations = 0;
  if (read(fd, &expirations, sizeof(expirations)) != sizeof(expirations)) return;
  static_cast<CommandConsole*>(cbData)->carryOutNext();
}

void CommandConsole::schedule(std::chrono::milliseconds delay) {
  itimerspec setting{};
  setting.it_value = toTimespec(delay.count() == 0 ? kAtOnce : std::chrono::nanoseconds(delay));
  timerfd_settime(timer.get(), 0, &setting, nullptr);
  scheduled = true;
}

void CommandConsole::carryOutNext() {
  scheduled = false;
  if (lines.empty()) return;
  const ParsedLine parsed = parseCommand(lines.front());
  lines.pop_front();

  std::chrono::milliseconds delay{0};
  if (!parsed.error.empty()) refuse(parsed.error);
  if (parsed.command) {
    execute(*parsed.command);
    if (const auto* wait = std::get_if<WaitCommand>(&*parsed.command)) delay = wait->time;
  }
  // Also without a line at hand: a wait counts for lines that are still to come.
  if (!lines.empty() || delay.count() != 0) schedule(delay);
}
