#include "vantor/platform/DispatchWorkItem.hpp"

#include <utility>

namespace vantor::platform {

std::shared_ptr<DispatchWorkItem> DispatchWorkItem::make(std::function<void()> block) {
  return std::make_shared<DispatchWorkItem>(std::move(block));
}

DispatchWorkItem::DispatchWorkItem(std::function<void()> block) : block_(std::move(block)) {}

void DispatchWorkItem::perform() {
  std::function<void()> block;
  {
    std::lock_guard lock(mutex_);
    if (cancelled_) {
      return;
    }
    block = std::exchange(block_, nullptr);
    canceller_ = nullptr;
  }
  if (block) {
    block();
  }
}

void DispatchWorkItem::cancel() {
  std::function<void()> block;
  std::function<void()> canceller;
  {
    std::lock_guard lock(mutex_);
    if (cancelled_) {
      return;
    }
    cancelled_ = true;
    block = std::exchange(block_, nullptr);
    canceller = std::exchange(canceller_, nullptr);
  }
  // Both are released and called outside the lock: the block's captures may
  // own objects whose destructors cancel other items.
  if (canceller) {
    canceller();
  }
}

bool DispatchWorkItem::isCancelled() const {
  std::lock_guard lock(mutex_);
  return cancelled_;
}

void DispatchWorkItem::setCanceller(std::function<void()> canceller) {
  std::lock_guard lock(mutex_);
  if (!cancelled_) {
    canceller_ = std::move(canceller);
  }
}

}  // namespace vantor::platform
