#include "ctmgr/CommandChannel.h"

#include <unistd.h>

#include "ctmgr/Log.h"
#include "host/Agreement.h"

namespace ctmgr {

namespace {

constexpr int kModule = ZAN_LOG_MODULE_CT_MGR;

}  // namespace

bool CommandChannel::execute(ZAN_COMMANDS command, const std::string& ifaceName,
                             unsigned int timeout) {
  if (!sendAcknowledged(&command, sizeof(command))) return false;
  if (isIdleTimerCommand(command)) {
    const bool sent = sendAcknowledged(ifaceName.c_str(), ifaceName.size() + 1) &&
                      sendAcknowledged(&timeout, sizeof(timeout)) &&
                      sendAcknowledged(kIdleTimerLabelPrefix, sizeof(kIdleTimerLabelPrefix)) &&
                      sendAcknowledged(kIdleTimerTarget, sizeof(kIdleTimerTarget));
    if (!sent) return false;
  }
  std::int32_t result = 0;
  if (!receive(result)) return false;
  const std::int32_t acknowledgement = 0;
  if (!send(&acknowledgement, sizeof(acknowledgement))) return false;
  if (result == 0) return true;
  ZAN_LOG(kModule, kLogError, "ZanIfConnTracker parent process failed to execute command\n");
  return false;
}

bool CommandChannel::send(const void* data, std::size_t length) {
  if (write(channel_, data, length) >= 0) return true;
  ZAN_LOG(kModule, kLogError, "send_and_recv_ack write failed");
  return false;
}

/// Sends one piece of an exchange and reads its acknowledgement; false ends the exchange.
bool CommandChannel::sendAcknowledged(const void* data, std::size_t length) {
  if (!send(data, length)) return false;
  std::int32_t acknowledgement = 0;
  if (!receive(acknowledgement)) return false;
  if (acknowledgement >= 0) return true;
  ZAN_LOG(kModule, kLogError, "send_and_recv_ack ret corrupted");
  return false;
}

/// Reads |value|, which keeps what it held when the stream has ended.
bool CommandChannel::receive(std::int32_t& value) {
  std::int32_t received = 0;
  const ssize_t count = read(channel_, &received, sizeof(received));
  if (count < 0) {
    ZAN_LOG(kModule, kLogError, "send_and_recv_ack read failed");
    return false;
  }
  if (count == sizeof(received)) value = received;
  return true;
}

}  // namespace ctmgr
