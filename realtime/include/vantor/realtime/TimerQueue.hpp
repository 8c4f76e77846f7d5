#pragma once

#include <chrono>
#include <memory>

namespace vantor::platform {
class DispatchWorkItem;
}

namespace vantor::realtime {

/// Runs a cancellable work item once, after a delay, on the main event loop.
/// Socket reconnects, channel rejoins and push time-outs are scheduled here.
///
/// Thread safety: every member may be called from any thread.
class TimerQueue {
 public:
  /// The shared instance, made once on first use.
  static TimerQueue& main();

  /// Schedules `workItem` on the main loop `timeInterval` seconds from now,
  /// rounded to whole milliseconds (halves away from zero). Cancelling the
  /// work item withdraws it. A negative interval runs it as soon as possible;
  /// an interval that is not finite, or too large for a signed 64-bit count
  /// of milliseconds, is a programming error and stops the process.
  void queue(double timeInterval, std::shared_ptr<platform::DispatchWorkItem> workItem);

  /// The millisecond count that `queue` waits for `timeInterval` seconds.
  static std::chrono::milliseconds milliseconds(double timeInterval);

 private:
  TimerQueue() = default;
};

}  // namespace vantor::realtime
