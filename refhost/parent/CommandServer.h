// The privileged parent's side of the command channel (host/ZanCommands.h).
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>

#include "base/Deadline.h"
#include "host/ZanCommands.h"
#include "refhost/parent/IdleTimerRule.h"

namespace parent {

/// Reads one exchange at a time and trusts nothing in it: whatever is malformed is answered with a
/// negative acknowledgement and ends the exchange. Where nobody can know any more what the next
/// byte means, because a piece came too late or too much came with it, the channel is closed.
///
/// Thread: one; serveOne() waits for at most |limit|, beside the time that execution takes.
class CommandServer {
 public:
  static constexpr std::chrono::seconds kExchangeLimit{10};
  static constexpr std::int32_t kRefused = -1;

  /// A day; the kernel's own limit is higher.
  static constexpr std::uint32_t kLongestTimeoutSeconds = 86400;

  /// Carries out one command; its result is the exchange's.
  using Execute = std::function<std::int32_t(ZAN_COMMANDS, const IdleTimerRule&)>;

  /// |channel| stays the caller's.
  CommandServer(int channel, Execute execute, std::chrono::milliseconds limit = kExchangeLimit);

  /// Serves one exchange. False when the other side has gone.
  bool serveOne();

 private:
  std::optional<ZAN_COMMANDS> readCommand();
  bool readArguments(ZAN_COMMANDS command, IdleTimerRule& rule);
  bool readInterface(IdleTimerRule& rule);
  bool readTimeout(ZAN_COMMANDS command, IdleTimerRule& rule);
  bool readText(const char* expected);

  /// One text up to its NUL, at most |limit| bytes with it.
  std::optional<std::string> readUpToNul(std::size_t limit);
  bool readInteger(std::int32_t& value);
  bool readBytes(void* data, std::size_t length);
  bool acknowledge();
  bool refuse(const std::string& why);
  bool send(std::int32_t value);
  bool awaitReady(short events);
  bool giveUp(const char* why);

  int channel_;
  Execute execute_;
  std::chrono::milliseconds limit_;
  base::Deadline deadline_;
  bool gone_ = false;
};

}  // namespace parent
