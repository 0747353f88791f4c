// What a service manager is told.
#pragma once

#include <string_view>

namespace zanhost {

/// Sends |state|, such as "READY=1", to the socket that NOTIFY_SOCKET names (sd_notify(3)); without
/// that variable nobody wants to know. Failure makes a log line.
void tellServiceManager(std::string_view state);

}  // namespace zanhost
