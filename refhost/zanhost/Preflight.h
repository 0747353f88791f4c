// What the kernel and the process's privileges must offer before anything is started.
#pragma once

#include <optional>
#include <string>

namespace zanhost {

/// Looks at the conntrack table and at conntrack's netlink interface, and changes nothing. Returns
/// the first thing that is missing, with the reason and what would help, or nothing when all is
/// there.
[[nodiscard]] std::optional<std::string> missingKernelSupport();

}  // namespace zanhost
