#include "vantor/realtime/TimerQueue.hpp"

#include <cmath>

#include "vantor/platform/DispatchWorkItem.hpp"
#include "vantor/platform/EventLoop.hpp"
#include "vantor/platform/Fatal.hpp"

namespace vantor::realtime {

TimerQueue& TimerQueue::main() {
  static TimerQueue queue;
  return queue;
}

std::chrono::milliseconds TimerQueue::milliseconds(double timeInterval) {
  const double rounded = std::round(timeInterval * 1000.0);  // halves away from zero
  if (!std::isfinite(rounded)) {
    platform::fatalError(
        "Double value cannot be converted to Int64 because it is either infinite or NaN");
  }
  // 2^63 is the first double past the largest signed 64-bit value.
  if (rounded >= 9223372036854775808.0) {
    platform::fatalError(
        "Double value cannot be converted to Int64 because the result would be greater than "
        "Int64.max");
  }
  if (rounded < -9223372036854775808.0) {
    platform::fatalError(
        "Double value cannot be converted to Int64 because the result would be less than "
        "Int64.min");
  }
  return std::chrono::milliseconds(static_cast<std::int64_t>(rounded));
}

void TimerQueue::queue(double timeInterval, std::shared_ptr<platform::DispatchWorkItem> workItem) {
  platform::EventLoop::main().asyncAfter(milliseconds(timeInterval), std::move(workItem));
}

}  // namespace vantor::realtime
