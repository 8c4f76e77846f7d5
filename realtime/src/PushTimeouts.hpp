#pragma once

#include <chrono>
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <utility>

namespace vantor::platform {
class DispatchWorkItem;
}

namespace vantor::realtime {
class Push;
}

namespace vantor::realtime::detail {

/// The time-outs of every waiting push: deadlines in order, and one timer on
/// the main loop armed for the earliest. Arming or withdrawing a time-out is
/// one map insertion or erasure, with no timer, work item or canceller per
/// push. A waiting push is held here until its reply or its time-out.
///
/// Lives on the main loop: every member must be called there.
class PushTimeouts {
 public:
  using Clock = std::chrono::steady_clock;
  /// Deadline, then the order of arming among equal deadlines.
  using Key = std::pair<Clock::time_point, std::uint64_t>;

  /// The process-wide instance.
  static PushTimeouts& main();

  /// Calls `push->trigger("timeout", {})` once `delay` has passed (at once
  /// for a negative delay), unless withdrawn first.
  Key arm(std::chrono::milliseconds delay, std::shared_ptr<Push> push);
  /// Withdraws the time-out; one that already fired or was withdrawn is
  /// ignored.
  void withdraw(const Key& key);

  [[nodiscard]] std::size_t size() const { return pending_.size(); }

 private:
  PushTimeouts() = default;
  void schedule();
  void expire();

  std::map<Key, std::shared_ptr<Push>> pending_;
  std::uint64_t nextOrder_ = 0;
  std::shared_ptr<platform::DispatchWorkItem> wakeUp_;
  std::optional<Clock::time_point> wakeUpAt_;
};

}  // namespace vantor::realtime::detail
