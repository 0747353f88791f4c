#include "bench/HeapMeter.h"

#include <malloc.h>

#include <atomic>
#include <cstdlib>
#include <new>

namespace bench {
namespace {

struct Counters {
  std::atomic<bool> on{false};
  std::atomic<std::ptrdiff_t> bytes{0};
  std::atomic<std::ptrdiff_t> peakBytes{0};
};

constinit Counters counters;

constexpr auto kRelaxed = std::memory_order_relaxed;

std::ptrdiff_t sizeOf(void* block) {
  return static_cast<std::ptrdiff_t>(malloc_usable_size(block));
}

void countTaken(void* block) {
  const std::ptrdiff_t size = sizeOf(block);
  const std::ptrdiff_t now = counters.bytes.fetch_add(size, kRelaxed) + size;
  std::ptrdiff_t peak = counters.peakBytes.load(kRelaxed);
  while (now > peak && !counters.peakBytes.compare_exchange_weak(peak, now, kRelaxed)) {
  }
}

void countGivenBack(void* block) {
  counters.bytes.fetch_sub(sizeOf(block), kRelaxed);
}

void* take(std::size_t size) {
  void* block = std::malloc(size == 0 ? 1 : size);
  if (block == nullptr) throw std::bad_alloc();
  if (counters.on.load(kRelaxed)) countTaken(block);
  return block;
}

void giveBack(void* block) {
  if (block != nullptr && counters.on.load(kRelaxed)) countGivenBack(block);
  std::free(block);
}

}  // namespace

HeapMeter::HeapMeter() {
  counters.bytes = 0;
  counters.peakBytes = 0;
  counters.on = true;
}

HeapMeter::~HeapMeter() {
  counters.on = false;
}

std::ptrdiff_t HeapMeter::bytes() const {
  return counters.bytes;
}

std::ptrdiff_t HeapMeter::peakBytes() const {
  return counters.peakBytes;
}

}  // namespace bench

// The library's forms for arrays and without exceptions call these.
void* operator new(std::size_t size) {
  return bench::take(size);
}

void operator delete(void* block) noexcept {
  bench::giveBack(block);
}

void operator delete(void* block, std::size_t /*size*/) noexcept {
  bench::giveBack(block);
}
