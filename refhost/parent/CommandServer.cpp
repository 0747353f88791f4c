// One exchange after the other, each piece checked before the next is read.
#include "refhost/parent/CommandServer.h"

#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <utility>

#include "base/InterfaceName.h"
#include "host/Agreement.h"
#include "refhost/framework/HostLog.h"

namespace parent {

CommandServer::CommandServer(int channel, Execute execute, std::chrono::milliseconds limit)
    : channel_(channel), execute_(std::move(execute)), limit_(limit), deadline_(limit) {}

bool CommandServer::serveOne() {
  deadline_ = base::Deadline(limit_);
  const auto command = readCommand();
  IdleTimerRule rule{};
  if (!command || !readArguments(*command, rule)) return !gone_;
  const std::int32_t result = execute_(*command, rule);
  deadline_ = base::Deadline(limit_);
  std::int32_t closing = 0;
  if (send(result)) readInteger(closing);
  return !gone_;
}

std::optional<ZAN_COMMANDS> CommandServer::readCommand() {
  std::int32_t value = 0;
  if (!readInteger(value)) return std::nullopt;
  if (!isIdleTimerCommand(value)) {
    refuse("command " + std::to_string(value) + " is none of 8 to 11");
    return std::nullopt;
  }
  if (!acknowledge()) return std::nullopt;
  return static_cast<ZAN_COMMANDS>(value);
}

bool CommandServer::readArguments(ZAN_COMMANDS command, IdleTimerRule& rule) {
  rule.direction = IdleTimerRule::directionOf(command);
  return readInterface(rule) && readTimeout(command, rule) && readText(kIdleTimerLabelPrefix) &&
         readText(kIdleTimerTarget);
}

bool CommandServer::readInterface(IdleTimerRule& rule) {
  const auto name = readUpToNul(IdleTimerRule::kInterfaceSize);
  if (!name || !base::isInterfaceName(*name)) return refuse("that is no interface name");
  std::copy(name->begin(), name->end(), rule.interface.begin());
  return acknowledge();
}

/// Stops are sent also when nothing was started, so a deletion may carry 0.
bool CommandServer::readTimeout(ZAN_COMMANDS command, IdleTimerRule& rule) {
  std::int32_t seconds = 0;
  if (!readInteger(seconds)) return false;
  rule.timeoutSeconds = static_cast<std::uint32_t>(seconds);
  const bool adds = IdleTimerRule::actionOf(command) == IdleTimerRule::Action::kAdd;
  const std::uint32_t shortest = adds ? 1 : 0;
  if (rule.timeoutSeconds < shortest || rule.timeoutSeconds > kLongestTimeoutSeconds) {
    return refuse("a timeout of " + std::to_string(rule.timeoutSeconds) + " s is out of range");
  }
  return acknowledge();
}

bool CommandServer::readText(const char* expected) {
  const auto text = readUpToNul(std::strlen(expected) + 1);
  if (!text || *text != expected) return refuse(std::string("expected ") + expected);
  return acknowledge();
}

std::optional<std::string> CommandServer::readUpToNul(std::size_t limit) {
  std::string text;
  for (char character = 0; text.size() < limit; text.push_back(character)) {
    if (!readBytes(&character, 1)) return std::nullopt;
    if (character == '\0') return text;
  }
  return std::nullopt;
}

bool CommandServer::readInteger(std::int32_t& value) {
  return readBytes(&value, sizeof(value));
}

bool CommandServer::readBytes(void* data, std::size_t length) {
  auto* bytes = static_cast<char*>(data);
  while (length > 0) {
    if (!awaitReady(POLLIN)) return false;
    const ssize_t count = recv(channel_, bytes, length, MSG_DONTWAIT);
    if (count < 0 && (errno == EINTR || errno == EAGAIN)) continue;
    if (count <= 0) {
      gone_ = true;
      return false;
    }
    bytes += count;
    length -= static_cast<std::size_t>(count);
  }
  return true;
}

bool CommandServer::acknowledge() {
  return send(0);
}

/// Says no, after dropping what is left of the refused piece: the next byte that arrives begins a
/// new exchange. Always false.
bool CommandServer::refuse(const std::string& why) {
  if (gone_) return false;
  HOST_LOG(kLogWarning, "command channel: refused: %s", why.c_str());
  constexpr std::size_t kMostDropped = 4096;
  std::array<char, 256> rest;
  std::size_t dropped = 0;
  for (ssize_t count; (count = recv(channel_, rest.data(), rest.size(), MSG_DONTWAIT)) > 0;) {
    dropped += static_cast<std::size_t>(count);
    if (dropped > kMostDropped) return giveUp("too much came with what was refused");
  }
  send(kRefused);
  return false;
}

bool CommandServer::send(std::int32_t value) {
  if (!awaitReady(POLLOUT)) return false;
  if (::send(channel_, &value, sizeof(value), MSG_NOSIGNAL | MSG_DONTWAIT) == sizeof(value)) {
    return true;
  }
  return giveUp("an answer was not taken");
}

/// Waits for the channel; false when it is gone or the exchange's time is over.
bool CommandServer::awaitReady(short events) {
  if (!deadline_.over() && base::awaitReady(channel_, events, deadline_)) return true;
  return giveUp(deadline_.over() ? "an exchange was not completed in time"
                                 : "it cannot be waited for");
}

/// Closes the channel for both sides. Always false.
bool CommandServer::giveUp(const char* why) {
  HOST_LOG(kLogError, "command channel: closed: %s", why);
  shutdown(channel_, SHUT_RDWR);
  gone_ = true;
  return false;
}

}  // namespace parent
