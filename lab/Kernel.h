// Which kernel runs here.
#pragma once

#include <string>

namespace lab {

/// The running kernel's release, "6.1.0" say, without what its builder has added.
[[nodiscard]] std::string kernelRelease();

/// Whether the running kernel is of that version or a later one.
[[nodiscard]] bool kernelIsAtLeast(int version, int patchLevel);

}  // namespace lab
