#include "AllocationCounter.hpp"

#include <malloc.h>

#include <atomic>
#include <cstdlib>
#include <new>

namespace {
std::atomic<std::size_t> bytes{0};
std::atomic<std::size_t> blocks{0};
std::atomic<std::size_t> live{0};
}  // namespace

namespace vantor::bench {
std::size_t allocatedBytes() noexcept { return bytes.load(std::memory_order_relaxed); }
std::size_t allocationCount() noexcept { return blocks.load(std::memory_order_relaxed); }
std::size_t liveBytes() noexcept { return live.load(std::memory_order_relaxed); }
}  // namespace vantor::bench

void* operator new(std::size_t size) {
  bytes.fetch_add(size, std::memory_order_relaxed);
  blocks.fetch_add(1, std::memory_order_relaxed);
  if (void* memory = std::malloc(size == 0 ? 1 : size)) {
    live.fetch_add(malloc_usable_size(memory), std::memory_order_relaxed);
    return memory;
  }
  throw std::bad_alloc();
}
void operator delete(void* memory) noexcept {
  if (memory != nullptr) {
    live.fetch_sub(malloc_usable_size(memory), std::memory_order_relaxed);
  }
  std::free(memory);
}
void operator delete(void* memory, std::size_t) noexcept { operator delete(memory); }
