#include <gtest/gtest.h>

#include <atomic>
#include <future>
#include <thread>

#include "vantor/platform/DispatchQueue.hpp"
#include "vantor/platform/DispatchSourceTimer.hpp"

namespace vantor::platform {
namespace {

using namespace std::chrono_literals;

TEST(DispatchQueue, RunsBlocksInOrderOnTheLoopAndSyncSeesEarlierAsyncWork) {
  DispatchQueue queue("test.queue");
  EXPECT_EQ(queue.label(), "test.queue");
  std::vector<int> seen;
  for (int i = 0; i < 50; ++i) {
    queue.async([&seen, i] { seen.push_back(i); });
  }
  auto copy = queue.sync([&] { return seen; });
  ASSERT_EQ(copy.size(), 50U);
  EXPECT_EQ(copy.front(), 0);
  EXPECT_EQ(copy.back(), 49);
  EXPECT_TRUE(queue.sync([&] { return queue.loop().isCurrentThread(); }));
}

TEST(DispatchSourceTimer, RepeatsUntilCancelledAndNeverFiresAfterwards) {
  DispatchQueue queue("test.timer");
  auto timer = DispatchSourceTimer::make(queue);
  std::atomic<int> ticks{0};
  std::promise<void> threeTicks;
  timer->setEventHandler([&] {
    if (++ticks == 3) {
      threeTicks.set_value();
    }
  });
  timer->schedule(2ms, 2ms, 0ms);
  timer->resume();
  ASSERT_EQ(threeTicks.get_future().wait_for(10s), std::future_status::ready);
  // Cancel on the queue, as a heartbeat stop does, so no tick is running.
  queue.sync([&] { timer->cancel(); });
  int atCancel = ticks;
  std::this_thread::sleep_for(20ms);
  EXPECT_EQ(ticks, atCancel);
  EXPECT_TRUE(timer->isCancelled());
}

TEST(DispatchSourceTimer, AHandlerThatCancelsItsTimerIsNotCalledAgain) {
  DispatchQueue queue("test.timer.self");
  auto timer = DispatchSourceTimer::make(queue);
  std::atomic<int> ticks{0};
  timer->setEventHandler([&] {
    ++ticks;
    timer->cancel();
  });
  timer->schedule(1ms, 1ms, 0ms);
  timer->resume();
  std::this_thread::sleep_for(30ms);
  EXPECT_EQ(ticks, 1);
}

TEST(DispatchSourceTimer, ReleasingTheTimerStopsIt) {
  DispatchQueue queue("test.timer.release");
  std::atomic<int> ticks{0};
  auto timer = DispatchSourceTimer::make(queue);
  timer->setEventHandler([&] { ++ticks; });
  timer->schedule(5ms, 5ms, 0ms);
  timer->resume();
  queue.sync([&] { timer.reset(); });
  std::this_thread::sleep_for(30ms);
  EXPECT_EQ(ticks, 0);
}

}  // namespace
}  // namespace vantor::platform
