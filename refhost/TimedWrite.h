// Writing to a stream whose reader may stand still.
#pragma once

#include <chrono>
#include <string_view>

/// Writes |text| to |fd|, waiting up to |patience| for each part to be taken, and leaves in |text|
/// what was not. False, with errno set, when the reader took nothing for that long (ETIMEDOUT) or
/// has gone.
[[nodiscard]] bool writeTimed(int fd, std::string_view& text, std::chrono::milliseconds patience);
