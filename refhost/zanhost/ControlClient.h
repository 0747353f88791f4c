// Asks a running host.
#pragma once

#include <string>
#include <vector>

namespace zanhost {

/// Sends the command that |words| make up to the host that listens at |path|, waits until it has
/// been carried out, and prints the answer. Returns the exit status: 0 when it was carried out, 1
/// when no host answers, 2 when the host refuses it; standard error tells why.
[[nodiscard]] int askHost(const std::string& path, const std::vector<std::string>& words);

}  // namespace zanhost
