// System properties that are numbers.
#pragma once

#include <cstdlib>

#include "host/Agreement.h"
#include "host/Properties.h"

namespace ctmgr {

/// The value of property |name| as atoi(3) reads it; 0 when it is not set. Any thread.
[[nodiscard]] inline int readNumberProperty(const char* name) {
  char value[kPropertyValueMax] = {};
  property_get(name, value, "0");
  return std::atoi(value);
}

}  // namespace ctmgr
