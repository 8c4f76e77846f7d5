#include "vantor/platform/EventLoop.hpp"

#include <gtest/gtest.h>
#include <pthread.h>
#include <sched.h>
#include <time.h>

#include <atomic>
#include <future>
#include <stdexcept>
#include <thread>
#include <vector>

#include "vantor/platform/DispatchQueue.hpp"
#include "vantor/platform/DispatchSourceTimer.hpp"

namespace vantor::platform {
namespace {

using namespace std::chrono_literals;

TEST(EventLoop, SyncRunsOnTheLoopAndReturnsTheResultOrRethrows) {
  auto& loop = EventLoop::main();
  EXPECT_FALSE(loop.isCurrentThread());
  auto onLoop = loop.sync([&] { return loop.isCurrentThread(); });
  EXPECT_TRUE(onLoop);
  // Nested sync on the loop thread runs inline instead of waiting on itself.
  auto nested = loop.sync([&] { return loop.sync([] { return 7; }); });
  EXPECT_EQ(nested, 7);
  EXPECT_THROW(loop.sync([]() -> int { throw std::runtime_error("boom"); }), std::runtime_error);
  // The loop survives and keeps serving.
  EXPECT_EQ(loop.sync([] { return 1; }), 1);
}

// Polling before sleeping on and off: with it, most posts find the loop
// polling; without, each caught-up post must wake a sleeping loop.
class EventLoopPolling : public testing::TestWithParam<std::chrono::microseconds> {
 protected:
  void SetUp() override { EventLoop::main().setPollBeforeSleep(GetParam()); }
  void TearDown() override { EventLoop::main().setPollBeforeSleep(50us); }
};

INSTANTIATE_TEST_SUITE_P(OnAndOff, EventLoopPolling, testing::Values(50us, 0us));

TEST_P(EventLoopPolling, WorkFromOtherThreadsRunsOnceEachInEachThreadsOrder) {
  auto& loop = EventLoop::main();
  constexpr int threads = 4;
  constexpr int perThread = 20000;
  // Touched only on the loop.
  std::vector<int> next(threads, 0);
  int outOfOrder = 0;
  std::vector<std::thread> posters;
  for (int t = 0; t < threads; ++t) {
    posters.emplace_back([&, t] {
      for (int i = 0; i < perThread; ++i) {
        loop.post([&, t, i] {
          outOfOrder += next[t] != i ? 1 : 0;
          next[t] = i + 1;
          if (i % 4999 == 0) {
            // The loop is busy while the posters go on, and a throwing
            // piece of work stops none after it.
            std::this_thread::sleep_for(std::chrono::microseconds(200));
            throw std::runtime_error("thrown on purpose");
          }
        });
        if (i % 5000 == 0) {
          // Caught up with, so the next post must wake an idle loop.
          loop.sync([] {});
        }
      }
    });
  }
  for (auto& poster : posters) {
    poster.join();
  }
  // A lost wake-up would leave work behind for good: this would not return.
  const auto [counts, disordered] = loop.sync([&] { return std::pair(next, outOfOrder); });
  EXPECT_EQ(counts, std::vector<int>(threads, perThread));
  EXPECT_EQ(disordered, 0);
}

TEST(EventLoop, AnIdleLoopSleepsSoonAfterPolling) {
  auto& loop = EventLoop::main();
  const clockid_t loopCpu = loop.sync([] {
    clockid_t id{};
    pthread_getcpuclockid(pthread_self(), &id);
    return id;
  });
  auto cpuTime = [&] {
    timespec now{};
    clock_gettime(loopCpu, &now);
    return std::chrono::seconds(now.tv_sec) + std::chrono::nanoseconds(now.tv_nsec);
  };
  // A run of quick exchanges, so that the loop goes idle polling.
  for (int i = 0; i < 1000; ++i) {
    loop.sync([] {});
  }
  const auto before = cpuTime();
  std::this_thread::sleep_for(300ms);
  // A poll that never gave up would have used the whole time.
  EXPECT_LT(cpuTime() - before, 60ms);
}

TEST(EventLoop, ItsOwnThreadYieldsOnWakeUnlessTurnedOff) {
  auto& loop = EventLoop::main();
  EXPECT_EQ(loop.sync([] { return sched_getscheduler(0); }), SCHED_BATCH);
  loop.setYieldsOnWake(false);
  EXPECT_EQ(loop.sync([] { return sched_getscheduler(0); }), SCHED_OTHER);
  loop.setYieldsOnWake(true);
  EXPECT_EQ(loop.sync([] { return sched_getscheduler(0); }), SCHED_BATCH);
  // The caller's own thread is left alone.
  EXPECT_EQ(sched_getscheduler(0), SCHED_OTHER);
}

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

TEST(EventLoopDeathTest, HostThreadModeMustBeChosenBeforeFirstUse) {
  EventLoop::main();
  EXPECT_DEATH(EventLoop::useHostThreadForMain(),
               "EventLoop::useHostThreadForMain\\(\\) must be called before the main loop is used");
}

TEST(EventLoopDeathTest, HostRunsTheMainLoopOnItsOwnThread) {
  // In a fresh child process, before anything has used the loop.
  EXPECT_EXIT(
      {
        std::promise<EventLoop*> made;
        std::promise<bool> earlyInline;
        std::thread host([&] {
          EventLoop::useHostThreadForMain();
          auto& loop = EventLoop::main();
          // Before run() the host's thread owns the loop: its calls act at
          // once instead of waiting for a loop that only it could start.
          earlyInline.set_value(loop.sync([&] { return loop.isCurrentThread(); }));
          made.set_value(&loop);
          loop.run();
        });
        auto& loop = *made.get_future().get();
        bool onHost = loop.sync([&] { return loop.isCurrentThread(); });
        loop.stop();
        host.join();
        // A stopped loop runs work on the caller instead of waiting forever.
        bool inline_ = loop.sync([&] { return loop.hasStopped() && !loop.isCurrentThread(); });
        std::exit(earlyInline.get_future().get() && onHost && inline_ ? 0 : 1);
      },
      ::testing::ExitedWithCode(0), "");
  EXPECT_DEATH(
      {
        EventLoop::useHostThreadForMain();
        auto& loop = EventLoop::main();
        std::thread other([&] { loop.run(); });
        other.join();
      },
      "EventLoop::run\\(\\) must be called on the thread that called useHostThreadForMain\\(\\)");
}

}  // namespace
}  // namespace vantor::platform
