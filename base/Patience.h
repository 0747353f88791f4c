// How long the lab and the tests wait for what must come.
#pragma once

#include <chrono>
#include <thread>

#include "base/Deadline.h"

namespace base {

/// Who waits longer than this has waited in vain. It judges nothing: a busy machine may take its
/// time, and nobody waits on for what has come.
constexpr std::chrono::seconds kPatience{60};

/// Looks until |condition| holds. False when patience has run out.
template <typename Condition>
[[nodiscard]] bool eventually(Condition condition) {
  const Deadline deadline(kPatience);
  while (!condition()) {
    if (deadline.over()) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  return true;
}

}  // namespace base
