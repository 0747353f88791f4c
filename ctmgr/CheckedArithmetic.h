// Arithmetic on sizes and counts that ends the process rather than wrap around.
#pragma once

#include <cstdlib>

namespace ctmgr {

/// |a| - |b|; aborts on underflow.
[[nodiscard]] inline unsigned int checkedSub(unsigned int a, unsigned int b) {
  unsigned int result = 0;
  if (__builtin_sub_overflow(a, b, &result)) std::abort();
  return result;
}

/// |a| + |b|; aborts on overflow.
[[nodiscard]] inline unsigned int checkedAdd(unsigned int a, unsigned int b) {
  unsigned int result = 0;
  if (__builtin_add_overflow(a, b, &result)) std::abort();
  return result;
}

/// |length| rounded up to a multiple of 4, the alignment of netlink messages and attributes;
/// aborts on overflow.
[[nodiscard]] inline unsigned int checkedAlign4(unsigned int length) {
  return checkedAdd(length, 3U) & ~3U;
}

}  // namespace ctmgr
