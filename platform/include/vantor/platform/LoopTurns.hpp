#pragma once

#include <chrono>
#include <cstdint>

namespace vantor::platform {

/// The turns in which a host's own main loop (a GUI toolkit's) runs the
/// library's event loop: each runs the ready work for about a budget at
/// most, and is counted, with the longest, so that an application can see
/// what the GUI thread spends inside the library at one stretch.
///
/// Made on the host's thread before anything else uses the library: it
/// makes the main loop one that the host runs (`useHostThreadForMain()`).
/// Thread safety: use it on that thread only.
class LoopTurns {
 public:
  explicit LoopTurns(std::chrono::microseconds budget);

  /// The descriptor the host watches for reading; a turn is due when it is.
  [[nodiscard]] int descriptor() const noexcept { return descriptor_; }

  /// Runs one turn; true when more work is ready than the turn could take,
  /// and the host should run another soon, after its own pending events.
  bool run();

  [[nodiscard]] std::uint64_t count() const noexcept { return count_; }
  [[nodiscard]] std::chrono::nanoseconds longest() const noexcept { return longest_; }
  /// Starts both counts again from zero.
  void resetStatistics() noexcept;

 private:
  std::chrono::microseconds budget_;
  int descriptor_;
  std::uint64_t count_ = 0;
  std::chrono::nanoseconds longest_{0};
};

}  // namespace vantor::platform
