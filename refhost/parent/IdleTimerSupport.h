// What the idle timers of mobile-data interfaces need, beside what the host itself does.
#pragma once

#include <optional>
#include <string>

namespace parent {

/// Adds an idle-timer rule as the privileged parent does, and deletes it, in a network namespace
/// made for that: no table that anybody uses is touched. Returns what was missing, what has it and
/// what works without it, or why that is not known; nothing when idle timers can be had.
///
/// Needs the parent's privilege. Call it before there are threads.
[[nodiscard]] std::optional<std::string> missingIdleTimerSupport();

}  // namespace parent
