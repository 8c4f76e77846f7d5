#pragma once

#include <cstddef>

namespace vantor::bench {

/// Bytes and blocks allocated by this process so far (all threads), counted
/// by the replaced global operator new.
std::size_t allocatedBytes() noexcept;
std::size_t allocationCount() noexcept;
/// Bytes held right now by blocks from operator new (usable sizes, so
/// allocator rounding counts too).
std::size_t liveBytes() noexcept;

/// Counts what the calling scope allocates, for the benchmark counters.
class AllocationScope {
 public:
  AllocationScope() : bytes_(allocatedBytes()), count_(allocationCount()) {}
  [[nodiscard]] std::size_t bytes() const noexcept { return allocatedBytes() - bytes_; }
  [[nodiscard]] std::size_t count() const noexcept { return allocationCount() - count_; }

 private:
  std::size_t bytes_;
  std::size_t count_;
};

}  // namespace vantor::bench
