// What the process takes from its heap through operator new.
#pragma once

#include <cstddef>

namespace bench {

/// Counts while it lives, one at a time; without one, operator new costs a branch more than usual.
///
/// A block counts with the bytes that malloc(3) reserves for it. Not counted: what the C library
/// takes for itself (streams, stacks of threads, loaded libraries) and over-aligned blocks, of
/// which the plug-in has none. Blocks from before that are given back meanwhile count below zero.
///
/// Thread: the meter one, the operators any.
class HeapMeter {
 public:
  HeapMeter();
  ~HeapMeter();
  HeapMeter(const HeapMeter&) = delete;
  HeapMeter& operator=(const HeapMeter&) = delete;

  /// Bytes that are in use now, over those of the beginning.
  [[nodiscard]] std::ptrdiff_t bytes() const;

  /// The most that bytes() has been.
  [[nodiscard]] std::ptrdiff_t peakBytes() const;
};

}  // namespace bench
