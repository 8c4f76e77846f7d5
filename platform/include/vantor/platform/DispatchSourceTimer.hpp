#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <mutex>

namespace vantor::platform {

class DispatchQueue;

/// A repeating timer whose handler runs on a `DispatchQueue`.
///
/// Made suspended: set the handler, `schedule`, then `resume`. After
/// `cancel()` (or destruction) the handler never starts again, and it is
/// released at once. The leeway is accepted for the record; Asio timers fire
/// as close to the deadline as the loop allows.
///
/// Thread safety: every member may be called from any thread.
class DispatchSourceTimer : public std::enable_shared_from_this<DispatchSourceTimer> {
 public:
  static std::shared_ptr<DispatchSourceTimer> make(DispatchQueue& queue);
  ~DispatchSourceTimer();
  DispatchSourceTimer(const DispatchSourceTimer&) = delete;
  DispatchSourceTimer& operator=(const DispatchSourceTimer&) = delete;

  void setEventHandler(std::function<void()> handler);

  /// First firing `deadline` from now, then every `interval` after the
  /// previous deadline (so late firings do not accumulate drift).
  void schedule(std::chrono::nanoseconds deadline, std::chrono::nanoseconds interval,
                std::chrono::nanoseconds leeway);

  void resume();
  void cancel();
  [[nodiscard]] bool isCancelled() const;

 private:
  explicit DispatchSourceTimer(DispatchQueue& queue);
  void arm();
  void fired();

  struct Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace vantor::platform
