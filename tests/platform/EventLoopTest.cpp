#include "vantor/platform/EventLoop.hpp"

#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <vector>

#include "vantor/platform/DispatchWorkItem.hpp"

namespace vantor::platform {
namespace {

TEST(EventLoop, SyncRunsOnTheLoopAndReturnsTheResult) {
  auto& loop = EventLoop::main();
  EXPECT_FALSE(loop.isCurrentThread());
  auto onLoop = loop.sync([&] { return loop.isCurrentThread(); });
  EXPECT_TRUE(onLoop);
  // Nested sync on the loop thread runs inline instead of waiting on itself.
  auto nested = loop.sync([&] { return loop.sync([] { return 7; }); });
  EXPECT_EQ(nested, 7);
}

TEST(EventLoop, SyncPassesExceptionsToTheCaller) {
  EXPECT_THROW(EventLoop::main().sync([]() -> int { throw std::runtime_error("boom"); }),
               std::runtime_error);
  // The loop survives and keeps serving.
  EXPECT_EQ(EventLoop::main().sync([] { return 1; }), 1);
}

TEST(EventLoop, PostedWorkFromOneThreadRunsInOrder) {
  auto& loop = EventLoop::main();
  std::vector<int> seen;  // touched only on the loop
  for (int i = 0; i < 100; ++i) {
    loop.post([&seen, i] { seen.push_back(i); });
  }
  auto copy = loop.sync([&] { return seen; });
  ASSERT_EQ(copy.size(), 100U);
  for (int i = 0; i < 100; ++i) {
    EXPECT_EQ(copy[i], i);
  }
}

TEST(EventLoop, ManyThreadsCallingSyncAreSerialised) {
  auto& loop = EventLoop::main();
  int counter = 0;  // unguarded on purpose: the loop serialises access
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&] {
      for (int i = 0; i < 500; ++i) {
        loop.sync([&] { ++counter; });
      }
    });
  }
  for (auto& thread : threads) {
    thread.join();
  }
  EXPECT_EQ(loop.sync([&] { return counter; }), 2000);
}

TEST(EventLoop, AsyncAfterRunsOnceAndCancelWithdraws) {
  auto& loop = EventLoop::main();
  std::promise<bool> ran;
  auto item = DispatchWorkItem::make([&] { ran.set_value(loop.isCurrentThread()); });
  loop.asyncAfter(std::chrono::milliseconds(1), item);
  auto future = ran.get_future();
  ASSERT_EQ(future.wait_for(std::chrono::seconds(10)), std::future_status::ready);
  EXPECT_TRUE(future.get());

  std::atomic<bool> cancelledRan{false};
  auto captured = std::make_shared<int>(1);
  std::weak_ptr<int> weakCapture = captured;
  auto cancelled = DispatchWorkItem::make([&, captured] { cancelledRan = true; });
  captured.reset();
  loop.asyncAfter(std::chrono::milliseconds(20), cancelled);
  cancelled->cancel();
  // Cancelling releases the block's captures at once, not at the deadline.
  EXPECT_TRUE(weakCapture.expired());
  std::this_thread::sleep_for(std::chrono::milliseconds(60));
  EXPECT_FALSE(cancelledRan);
  EXPECT_TRUE(cancelled->isCancelled());
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
        EventLoop::useHostThreadForMain();
        auto& loop = EventLoop::main();
        std::thread host([&] { loop.run(); });
        bool onHost = loop.sync([&] { return loop.isCurrentThread(); });
        loop.stop();
        host.join();
        // A stopped loop runs work on the caller instead of waiting forever.
        bool inline_ = loop.sync([&] { return loop.hasStopped() && !loop.isCurrentThread(); });
        std::exit(onHost && inline_ ? 0 : 1);
      },
      ::testing::ExitedWithCode(0), "");
}

}  // namespace
}  // namespace vantor::platform
