#pragma once

#include <cstdint>
#include <memory>

#include "vantor/realtime/Delegated.hpp"

namespace vantor::platform {
class DispatchWorkItem;
}

namespace vantor::realtime {

class TimerQueue;

/// A retry timer with a growing delay. Each `scheduleTimeout()` asks
/// `timerCalculation` for the delay of the next attempt number and schedules
/// one firing; a firing counts the attempt and calls `callback`. The socket
/// reconnects and each channel rejoins with one of these.
///
/// Set `callback` and `timerCalculation` (normally with `delegate`, so the
/// timer does not keep its owner alive) before the first `scheduleTimeout`.
/// Firings run on the main loop. Releasing the timer withdraws a pending
/// firing.
///
/// Thread safety: `reset`, `scheduleTimeout` and `tries` may be called from
/// any thread; they run on the main loop. Set the two callbacks before the
/// timer is shared between threads.
class TimeoutTimer : public std::enable_shared_from_this<TimeoutTimer> {
 public:
  static std::shared_ptr<TimeoutTimer> make();
  static std::shared_ptr<TimeoutTimer> make(TimerQueue& queue);
  ~TimeoutTimer();
  TimeoutTimer(const TimeoutTimer&) = delete;
  TimeoutTimer& operator=(const TimeoutTimer&) = delete;

  /// Called each time the timer fires.
  Delegated<void, void> callback;
  /// Gives the delay in seconds before the given attempt (counted from 1).
  Delegated<std::int64_t, double> timerCalculation;

  /// The number of firings since the last `reset()`.
  [[nodiscard]] std::int64_t tries() const;

  /// Sets `tries` to 0 and withdraws a pending firing.
  void reset();

  /// Withdraws a pending firing, then schedules the next one after
  /// `timerCalculation(tries + 1)` seconds. Does nothing more when the
  /// calculation gives no delay (not set, or its owner is gone).
  void scheduleTimeout();

  /// True while a firing is scheduled.
  [[nodiscard]] bool isPending() const;

 private:
  explicit TimeoutTimer(TimerQueue& queue);
  void fire();

  TimerQueue& queue_;
  std::shared_ptr<platform::DispatchWorkItem> workItem_;  // on the main loop only
  std::int64_t tries_ = 0;                                          // on the main loop only
};

}  // namespace vantor::realtime
