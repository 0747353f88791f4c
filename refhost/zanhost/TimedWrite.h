// Writing to a stream whose reader may stand still.
#pragma once

#include <chrono>
#include <climits>
#include <cstddef>
#include <string_view>

namespace zanhost {

/// Writes |text| to |fd|, waiting up to |patience| for each part to be taken, and leaves in |text|
/// what was not. False, with errno set, when the reader took nothing for that long (ETIMEDOUT) or
/// has gone. |atOnce| bytes must not block when poll(2) reports room; a pipe takes PIPE_BUF
/// (pipe(7)).
[[nodiscard]] bool writeTimed(int fd, std::string_view& text, std::chrono::milliseconds patience,
                              std::size_t atOnce = PIPE_BUF);

}  // namespace zanhost
