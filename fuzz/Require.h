// How a fuzzer says that something does not hold.
#pragma once

#include <cstdio>
#include <cstdlib>

/// Ends the run unless |holds|; libFuzzer then keeps the input.
inline void require(bool holds, const char* what) {
  if (holds) return;
  std::fprintf(stderr, "DIFFERENCE: %s\n", what);
  std::abort();
}
