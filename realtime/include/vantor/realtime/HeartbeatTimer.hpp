#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <mutex>
#include <string>

namespace vantor::platform {
class DispatchQueue;
class DispatchSourceTimer;
}  // namespace vantor::platform

namespace vantor::realtime {

/// A repeating timer on a serial queue; the socket sends its heartbeats with
/// one. The first firing comes one interval after `start`.
///
/// Two timers are equal exactly when they are the same timer (same `uuid`).
/// A stopped or replaced timer never calls its handler again; releasing the
/// timer stops it.
///
/// Thread safety: every member may be called from any thread; `start`,
/// `stop`, `isValid` and `fire` do their work synchronously on the timer's
/// queue, whose handlers all run on the main loop. The destructor does not
/// wait for the queue.
class HeartbeatTimer {
 public:
  HeartbeatTimer(double timeInterval, platform::DispatchQueue& queue,
                 std::chrono::nanoseconds leeway);
  ~HeartbeatTimer();
  HeartbeatTimer(const HeartbeatTimer&) = delete;
  HeartbeatTimer& operator=(const HeartbeatTimer&) = delete;

  /// Starts firing `eventHandler` on the queue every `timeInterval` seconds,
  /// replacing (and silencing) an earlier start.
  void start(std::function<void()> eventHandler);

  /// Stops the timer; when it returns, no handler of this timer is running
  /// and none will run.
  void stop();

  /// True between `start` and `stop`.
  [[nodiscard]] bool isValid() const;

  /// Runs the handler of the last `start` at once, outside the schedule.
  void fire();

  [[nodiscard]] double timeInterval() const noexcept { return timeInterval_; }
  [[nodiscard]] std::chrono::nanoseconds leeway() const noexcept { return leeway_; }
  [[nodiscard]] platform::DispatchQueue& queue() const noexcept { return queue_; }
  /// A fresh upper-case UUID made at construction; the timer's identity.
  [[nodiscard]] const std::string& uuid() const noexcept { return uuid_; }

  friend bool operator==(const HeartbeatTimer& lhs, const HeartbeatTimer& rhs) noexcept {
    return lhs.uuid_ == rhs.uuid_;
  }

 private:
  double timeInterval_;
  platform::DispatchQueue& queue_;
  std::chrono::nanoseconds leeway_;
  std::string uuid_;
  // Written on the queue; guarded too, so that the destructor can take them
  // from any thread without waiting for the queue.
  mutable std::mutex timerMutex_;
  std::shared_ptr<platform::DispatchSourceTimer> temporaryTimer_;  // guarded by timerMutex_
  std::function<void()> temporaryEventHandler_;                    // guarded by timerMutex_
};

}  // namespace vantor::realtime
