// The socket at which a running host takes commands.
#pragma once

#include <string>

#include "base/UniqueFd.h"

namespace parent {

/// A Unix socket that listens at |path|, which root alone may connect to (mode 0600). What a killed
/// host has left there is replaced. Without it, errno says why: EADDRINUSE for a host that listens,
/// and for a file that is no socket. Who has the path removes it.
[[nodiscard]] base::UniqueFd listenAt(const std::string& path);

}  // namespace parent
