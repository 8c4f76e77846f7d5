#include "vantor/platform/LoopTurns.hpp"

#include <algorithm>

#include "vantor/platform/EventLoop.hpp"

namespace vantor::platform {

namespace {

int hostDrivenMainLoop() {
  EventLoop::useHostThreadForMain();
  return EventLoop::main().readinessDescriptor();
}

}  // namespace

LoopTurns::LoopTurns(std::chrono::microseconds budget) : budget_(budget), descriptor_(hostDrivenMainLoop()) {}

bool LoopTurns::run() {
  const auto start = std::chrono::steady_clock::now();
  const bool more = EventLoop::main().runReady(budget_);
  ++count_;
  longest_ = std::max(longest_, std::chrono::steady_clock::now() - start);
  return more;
}

void LoopTurns::resetStatistics() noexcept {
  count_ = 0;
  longest_ = std::chrono::nanoseconds::zero();
}

}  // namespace vantor::platform
