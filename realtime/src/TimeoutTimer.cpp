#include "vantor/realtime/TimeoutTimer.hpp"


#include "vantor/platform/DispatchWorkItem.hpp"
#include "vantor/platform/EventLoop.hpp"
#include "vantor/realtime/TimerQueue.hpp"

namespace vantor::realtime {

using platform::EventLoop;

std::shared_ptr<TimeoutTimer> TimeoutTimer::make() { return make(TimerQueue::main()); }

std::shared_ptr<TimeoutTimer> TimeoutTimer::make(TimerQueue& queue) {
  return std::shared_ptr<TimeoutTimer>(new TimeoutTimer(queue));
}

TimeoutTimer::TimeoutTimer(TimerQueue& queue) : queue_(queue) {}

TimeoutTimer::~TimeoutTimer() {
  if (workItem_) {
    workItem_->cancel();
  }
}

std::int64_t TimeoutTimer::tries() const {
  return EventLoop::main().sync([this] { return tries_; });
}

bool TimeoutTimer::isPending() const {
  return EventLoop::main().sync([this] { return workItem_ != nullptr; });
}

void TimeoutTimer::reset() {
  EventLoop::main().sync([this] {
    tries_ = 0;
    if (workItem_) {
      workItem_->cancel();
      workItem_.reset();
    }
  });
}

void TimeoutTimer::scheduleTimeout() {
  EventLoop::main().sync([this] {
    if (workItem_) {
      workItem_->cancel();
      workItem_.reset();
    }
    const auto delay = timerCalculation.call(tries_ + 1);
    if (!delay) {
      return;
    }
    auto item = platform::DispatchWorkItem::make([weakSelf = weak_from_this()] {
      if (auto self = weakSelf.lock()) {
        self->fire();
      }
    });
    workItem_ = item;
    queue_.queue(*delay, std::move(item));
  });
}

void TimeoutTimer::fire() {
  ++tries_;  // 64 bits: never overflows in the life of a process
  workItem_.reset();
  callback.call();
}

}  // namespace vantor::realtime
