#pragma once

#include <functional>
#include <memory>
#include <mutex>

namespace vantor::platform {

class EventLoop;

/// A block of work that can be scheduled and withdrawn.
///
/// `cancel()` guarantees that the block does not start afterwards, and
/// releases it (and whatever it captured) at once. A performed block is
/// released after it has run, so a work item never keeps its captures alive
/// longer than needed.
///
/// Thread safety: every member may be called from any thread.
class DispatchWorkItem {
 public:
  static std::shared_ptr<DispatchWorkItem> make(std::function<void()> block);

  explicit DispatchWorkItem(std::function<void()> block);
  DispatchWorkItem(const DispatchWorkItem&) = delete;
  DispatchWorkItem& operator=(const DispatchWorkItem&) = delete;

  /// Runs the block on the calling thread unless the item was cancelled or
  /// has already run.
  void perform();

  /// Withdraws the item: the block will not start and is released.
  void cancel();

  [[nodiscard]] bool isCancelled() const;

 private:
  friend class EventLoop;
  // Called on cancel, so a scheduled timer can be withdrawn early.
  void setCanceller(std::function<void()> canceller);

  mutable std::mutex mutex_;
  std::function<void()> block_;
  std::function<void()> canceller_;
  bool cancelled_ = false;
};

}  // namespace vantor::platform
