#include "PushTimeouts.hpp"

#include <algorithm>
#include <vector>

#include "vantor/platform/DispatchWorkItem.hpp"
#include "vantor/platform/EventLoop.hpp"
#include "vantor/realtime/Push.hpp"

namespace vantor::realtime::detail {

PushTimeouts& PushTimeouts::main() {
  // Never destroyed: pushes may still be waiting while the process exits.
  static auto* const instance = new PushTimeouts;
  return *instance;
}

PushTimeouts::Key PushTimeouts::arm(std::chrono::milliseconds delay, std::shared_ptr<Push> push) {
  // A century is "never" for a process, and keeps the deadline from
  // overflowing the clock.
  constexpr std::chrono::milliseconds longest = std::chrono::hours(24 * 365 * 100);
  const Key key{Clock::now() + std::clamp(delay, std::chrono::milliseconds::zero(), longest),
                nextOrder_++};
  pending_.emplace(key, std::move(push));
  schedule();
  return key;
}

void PushTimeouts::withdraw(const Key& key) {
  // The wake-up stays armed: when it comes early it finds nothing due and
  // sleeps until the next deadline, which is cheaper than re-arming on
  // every reply.
  pending_.erase(key);
}

void PushTimeouts::schedule() {
  if (pending_.empty()) {
    return;
  }
  const auto earliest = pending_.begin()->first.first;
  if (wakeUpAt_ && *wakeUpAt_ <= earliest) {
    return;
  }
  if (wakeUp_) {
    wakeUp_->cancel();
  }
  wakeUpAt_ = earliest;
  wakeUp_ = platform::DispatchWorkItem::make([this] {
    wakeUp_.reset();
    wakeUpAt_.reset();
    expire();
  });
  // Rounded up, so that the wake-up never comes before the deadline.
  const auto delay = std::chrono::ceil<std::chrono::milliseconds>(earliest - Clock::now());
  platform::EventLoop::main().asyncAfter(delay, wakeUp_);
}

void PushTimeouts::expire() {
  // Taken out first: a "timeout" hook may push again and arm new time-outs.
  std::vector<std::shared_ptr<Push>> due;
  const auto now = Clock::now();
  while (!pending_.empty() && pending_.begin()->first.first <= now) {
    due.push_back(std::move(pending_.begin()->second));
    pending_.erase(pending_.begin());
  }
  for (const auto& push : due) {
    push->trigger("timeout", Payload{});
  }
  schedule();
}

}  // namespace vantor::realtime::detail
