#pragma once

#include <atomic>
#include <cstdint>

#include "vantor/realtime/ConnectionMetrics.hpp"

namespace vantor::realtime::detail {

/// A socket's counters. Only the loop thread writes them, so a count is a
/// relaxed load and store rather than a locked add; any thread may read them.
/// Aligned to a cache line, so that no other object shares their lines.
struct alignas(64) MetricCounters {
  using Counter = std::atomic<std::uint64_t>;

  std::atomic<bool> enabled{false};
  Counter framesIn{0};
  Counter bytesIn{0};
  Counter framesOut{0};
  Counter bytesOut{0};
  Counter reconnects{0};
  Counter rejoins{0};
  Counter pushesOk{0};
  Counter pushesError{0};
  Counter pushesTimeout{0};
  Counter malformedDropped{0};
  Counter resumes{0};
  Counter networkChanges{0};

  [[nodiscard]] bool on() const { return enabled.load(std::memory_order_relaxed); }

  static void add(Counter& counter, std::uint64_t amount = 1) {
    counter.store(counter.load(std::memory_order_relaxed) + amount, std::memory_order_relaxed);
  }

  [[nodiscard]] ConnectionMetrics read() const {
    constexpr auto relaxed = std::memory_order_relaxed;
    return {framesIn.load(relaxed),   bytesIn.load(relaxed),     framesOut.load(relaxed),
            bytesOut.load(relaxed),   reconnects.load(relaxed),  rejoins.load(relaxed),
            pushesOk.load(relaxed),   pushesError.load(relaxed), pushesTimeout.load(relaxed),
            malformedDropped.load(relaxed), resumes.load(relaxed), networkChanges.load(relaxed)};
  }
};

}  // namespace vantor::realtime::detail
