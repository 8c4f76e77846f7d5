#include "vantor/realtime/TimeoutTimer.hpp"

#include <gtest/gtest.h>

#include <atomic>
#include <cmath>
#include <thread>

#include "support/Eventually.hpp"
#include "vantor/platform/DispatchQueue.hpp"
#include "vantor/platform/EventLoop.hpp"
#include "vantor/realtime/Defaults.hpp"
#include "vantor/realtime/HeartbeatTimer.hpp"
#include "vantor/realtime/TimerQueue.hpp"

namespace vantor::realtime {
namespace {

using namespace std::chrono_literals;
using platform::EventLoop;
using testing::eventually;

TEST(TimerQueue, RoundsToWholeMillisecondsHalvesAwayFromZero) {
  EXPECT_EQ(TimerQueue::milliseconds(0.0004), 0ms);
  EXPECT_EQ(TimerQueue::milliseconds(0.0005), 1ms);
  EXPECT_EQ(TimerQueue::milliseconds(0.01), 10ms);
  EXPECT_EQ(TimerQueue::milliseconds(2.4996), 2500ms);
  EXPECT_EQ(TimerQueue::milliseconds(-0.0005), -1ms);
}

TEST(TimerQueueDeathTest, IntervalsThatAreNotFiniteOrTooLargeStopTheProcess) {
  EXPECT_DEATH(TimerQueue::milliseconds(INFINITY), "either infinite or NaN");
  EXPECT_DEATH(TimerQueue::milliseconds(std::nan("")), "either infinite or NaN");
  EXPECT_DEATH(TimerQueue::milliseconds(1e17), "greater than Int64.max");
  EXPECT_DEATH(TimerQueue::milliseconds(-1e17), "less than Int64.min");
}

// Records what a TimeoutTimer asks and does, on the loop thread.
struct RetryOwner {
  std::vector<int> attemptsAsked;
  std::atomic<int> fired{0};
  double delay = 0.001;
};

std::shared_ptr<TimeoutTimer> timerFor(const std::shared_ptr<RetryOwner>& owner) {
  auto timer = TimeoutTimer::make();
  timer->callback.delegate(owner, [](RetryOwner& self) { ++self.fired; });
  timer->timerCalculation.delegate(owner, [](RetryOwner& self, const std::int64_t& attempt) {
    self.attemptsAsked.push_back(attempt);
    return self.delay;
  });
  return timer;
}

TEST(TimeoutTimer, RescheduleResetAndReleaseLeaveAtMostOneFiring) {
  auto owner = std::make_shared<RetryOwner>();
  owner->delay = 0.02;
  auto timer = timerFor(owner);
  timer->scheduleTimeout();
  timer->scheduleTimeout();
  ASSERT_TRUE(eventually([&] { return owner->fired == 1; }));
  std::this_thread::sleep_for(60ms);
  EXPECT_EQ(owner->fired, 1);
  EXPECT_EQ(EventLoop::main().sync([&] { return owner->attemptsAsked; }), (std::vector<int>{1, 1}));

  timer->scheduleTimeout();
  EXPECT_TRUE(timer->isPending());
  timer->reset();
  EXPECT_FALSE(timer->isPending());
  timer->scheduleTimeout();
  timer.reset();  // releasing the timer withdraws its firing too
  std::this_thread::sleep_for(60ms);
  EXPECT_EQ(owner->fired, 1);
}

TEST(TimeoutTimer, ACalculationWhoseOwnerIsGoneSchedulesNothing) {
  auto owner = std::make_shared<RetryOwner>();
  auto timer = timerFor(owner);
  owner.reset();
  timer->scheduleTimeout();
  EXPECT_FALSE(timer->isPending());
  EXPECT_EQ(timer->tries(), 0);
}

// A replaced or stopped handler is never called again, and a handler may stop
// its own timer.
TEST(HeartbeatTimer, RepeatsOnItsQueueUntilReplacedOrStopped) {
  HeartbeatTimer timer(0.001, Defaults::heartbeatQueue(), Defaults::heartbeatLeeway);
  EXPECT_FALSE(timer.isValid());
  std::atomic<int> first{0};
  std::atomic<int> second{0};
  std::atomic<bool> onQueueThread{true};
  timer.start([&] {
    ++first;
    if (!EventLoop::main().isCurrentThread()) {
      onQueueThread = false;
    }
  });
  EXPECT_TRUE(timer.isValid());
  ASSERT_TRUE(eventually([&] { return first >= 3; }));
  timer.start([&] {
    if (++second == 4) {
      timer.stop();
    }
  });
  const int firstAtReplace = first;
  timer.fire();  // runs the current handler at once
  EXPECT_GE(second, 1);
  ASSERT_TRUE(eventually([&] { return second >= 4; }));
  std::this_thread::sleep_for(20ms);
  EXPECT_FALSE(timer.isValid());
  EXPECT_EQ(second, 4);
  EXPECT_EQ(first, firstAtReplace);
  EXPECT_TRUE(onQueueThread);
  timer.fire();  // nothing stored any more: no effect
  EXPECT_EQ(second, 4);
}

}  // namespace
}  // namespace vantor::realtime
