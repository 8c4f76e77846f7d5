#include "AllocationCounter.hpp"

#include <atomic>
#include <cstdlib>
#include <new>

namespace {
std::atomic<std::size_t> bytes{0};
std::atomic<std::size_t> blocks{0};
}  // namespace

namespace vantor::bench {
std::size_t allocatedBytes() noexcept { return bytes.load(std::memory_order_relaxed); }
std::size_t allocationCount() noexcept { return blocks.load(std::memory_order_relaxed); }
}  // namespace vantor::bench

void* operator new(std::size_t size) {
  bytes.fetch_add(size, std::memory_order_relaxed);
  blocks.fetch_add(1, std::memory_order_relaxed);
  if (void* memory = std::malloc(size == 0 ? 1 : size)) {
    return memory;
  }
  throw std::bad_alloc();
}
void operator delete(void* memory) noexcept { std::free(memory); }
void operator delete(void* memory, std::size_t) noexcept { std::free(memory); }
