#include <gtest/gtest.h>

#include <atomic>
#include <future>
#include <thread>
#include <vector>

#include "vantor/platform/DispatchQueue.hpp"
#include "vantor/platform/DispatchSourceTimer.hpp"

namespace vantor::platform {
namespace {

using namespace std::chrono_literals;

TEST(DispatchQueue, RunsBlocksInOrderOnTheLoopAndSyncSeesEarlierAsyncWork) {
  DispatchQueue queue("test.queue");
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

// A timer repeats until cancelled on its queue, and releasing a timer stops
// it. (A handler stopping its own timer is HeartbeatTimer's case.)
TEST(DispatchSourceTimer, RepeatsUntilCancelledOrReleasedAndNeverFiresAfterwards) {
  DispatchQueue queue("test.timer");
  auto timer = DispatchSourceTimer::make(queue);
  auto released = DispatchSourceTimer::make(queue);
  std::atomic<int> ticks{0};
  std::atomic<int> releasedTicks{0};
  std::promise<void> threeTicks;
  timer->setEventHandler([&] {
    if (++ticks == 3) {
      threeTicks.set_value();
    }
  });
  released->setEventHandler([&] { ++releasedTicks; });
  timer->schedule(2ms, 2ms, 0ms);
  released->schedule(5ms, 5ms, 0ms);
  queue.sync([&] {
    timer->resume();
    released->resume();
    released.reset();
  });
  ASSERT_EQ(threeTicks.get_future().wait_for(10s), std::future_status::ready);
  // Cancel on the queue, as a heartbeat stop does, so no tick is running.
  queue.sync([&] { timer->cancel(); });
  int atCancel = ticks;
  std::this_thread::sleep_for(30ms);
  EXPECT_EQ(ticks, atCancel);
  EXPECT_TRUE(timer->isCancelled());
  EXPECT_EQ(releasedTicks, 0);
}

}  // namespace
}  // namespace vantor::platform
