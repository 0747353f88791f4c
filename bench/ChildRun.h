// A measurement in a process of its own.
#pragma once

#include <functional>
#include <vector>

namespace bench {

/// Runs |measurement| in a forked child and returns what it returned. The child ends right after,
/// whatever threads it has. Throws lab::Error with the text of what |measurement| threw, or when
/// the child has died or takes longer than three minutes. Call it while the process has one thread.
[[nodiscard]] std::vector<double> inChild(const std::function<std::vector<double>()>& measurement);

}  // namespace bench
