// The asking side of the command channel to the privileged parent process (host/ZanCommands.h).
#pragma once

#include <cstdint>
#include <string>

#include "host/ZanCommands.h"

namespace ctmgr {

/// Thread: event thread, which each exchange blocks until the parent has answered.
class CommandChannel {
 public:
  /// |channel|, a connected byte stream, stays the caller's.
  explicit CommandChannel(int channel) : channel_(channel) {}

  /// Asks for |command|; idle-timer commands are for |ifaceName| and a timer of |timeout| seconds.
  /// Returns whether it succeeded; a log line tells why not. A parent that has only ended its
  /// sending side before the result makes it succeed.
  [[nodiscard]] bool execute(ZAN_COMMANDS command, const std::string& ifaceName,
                             unsigned int timeout);

 private:
  [[nodiscard]] bool send(const void* data, std::size_t length);
  [[nodiscard]] bool sendAcknowledged(const void* data, std::size_t length);
  [[nodiscard]] bool receive(std::int32_t& value);

  int channel_;
};

}  // namespace ctmgr
