#include "vantor/realtime/Delegated.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <string>
#include <thread>

#include "vantor/realtime/SynchronizedArray.hpp"
#include "vantor/realtime/SynchronizedGroups.hpp"

namespace vantor::realtime {
namespace {

struct Owner {
  int calls = 0;
};

TEST(Delegated, WeakOwnerIsSkippedOnceReleased) {
  auto owner = std::make_shared<Owner>();
  Delegated<int, int> delegated;
  EXPECT_FALSE(delegated.isDelegateSet());
  EXPECT_FALSE(delegated.call(1));

  delegated.delegate(owner, [](Owner& self, const int& input) {
    ++self.calls;
    return input * 2;
  });
  EXPECT_EQ(delegated.call(21), 42);
  EXPECT_EQ(owner->calls, 1);

  std::weak_ptr<Owner> weakOwner = owner;
  owner.reset();
  EXPECT_TRUE(weakOwner.expired()) << "a weak delegate must not keep its owner alive";
  EXPECT_FALSE(delegated.call(1));
  EXPECT_TRUE(delegated.isDelegateSet()) << "still set until removeDelegate()";
  delegated.removeDelegate();
  EXPECT_FALSE(delegated.isDelegateSet());
}

TEST(Delegated, StrongOwnerLivesUntilTheCallbackIsReplaced) {
  auto owner = std::make_shared<Owner>();
  std::weak_ptr<Owner> weakOwner = owner;
  Delegated<void, void> delegated;
  delegated.stronglyDelegate(owner, [](Owner& self) { ++self.calls; });
  owner.reset();
  delegated.call();
  ASSERT_FALSE(weakOwner.expired());
  EXPECT_EQ(weakOwner.lock()->calls, 1);

  delegated.manuallyDelegate([] {});
  EXPECT_TRUE(weakOwner.expired()) << "replacing the callback releases what it held";
}

TEST(Delegated, CopiesShareTheClosureAndTheOwnerStaysAliveDuringTheCall) {
  auto owner = std::make_shared<Owner>();
  Delegated<int, void> first;
  first.delegate(owner, [&owner](Owner& self, const int&) {
    owner.reset();  // the last outside reference goes away mid-call
    ++self.calls;   // ...but the delegate holds it for the call's duration
  });
  auto second = first;
  std::weak_ptr<Owner> weakOwner = owner;
  second.call(0);
  EXPECT_TRUE(weakOwner.expired());
  first.call(0);  // the shared weak reference is gone for both copies
}

TEST(SynchronizedArray, FilterIsASnapshotAndRemovalKeepsOrder) {
  SynchronizedArray<int> array;
  for (int i = 0; i < 10; ++i) {
    array.append(i);
  }
  auto even = array.filter([](int value) { return value % 2 == 0; });
  EXPECT_EQ(even, (std::vector<int>{0, 2, 4, 6, 8}));

  array.removeAll([](int value) { return value > 100; });
  EXPECT_EQ(array.filter([](int) { return true; }).size(), 10U);
  array.removeAll([](int value) { return value % 3 == 0; });
  EXPECT_EQ(array.filter([](int) { return true; }), (std::vector<int>{1, 2, 4, 5, 7, 8}));
  array.removeAll([](int) { return true; });
  EXPECT_TRUE(array.filter([](int) { return true; }).empty());
  EXPECT_EQ(even.size(), 5U) << "earlier snapshots are unaffected";
}

TEST(SynchronizedArray, EachThreadSeesItsOwnWritesWhileOthersWrite) {
  SynchronizedArray<std::pair<int, int>> array;
  std::atomic<int> misses{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&, t] {
      for (int i = 0; i < 300; ++i) {
        array.append({t, i});
        auto mine = array.filter([&](const auto& entry) { return entry == std::pair{t, i}; });
        if (mine.size() != 1) {
          ++misses;
        }
        if (i % 3 == 0) {
          array.removeAll([&](const auto& entry) { return entry.first == t && entry.second < i; });
        }
      }
    });
  }
  for (auto& thread : threads) {
    thread.join();
  }
  EXPECT_EQ(misses, 0);
}

TEST(SynchronizedGroups, EachKeyKeepsItsOrderAndASnapshotNeverChanges) {
  SynchronizedGroups<int> groups;
  for (int i = 0; i < 10; ++i) {
    groups.append(i % 2 == 0 ? "even" : "odd", i);
  }
  const auto even = groups.group("even");
  EXPECT_EQ(*even, (std::vector<int>{0, 2, 4, 6, 8}));
  EXPECT_EQ(*groups.group("odd"), (std::vector<int>{1, 3, 5, 7, 9}));
  EXPECT_TRUE(groups.group("none")->empty());

  groups.removeAll("even", [](int value) { return value % 4 == 0; });
  groups.append("even", 10);
  EXPECT_EQ(*groups.group("even"), (std::vector<int>{2, 6, 10}));
  EXPECT_EQ(*even, (std::vector<int>{0, 2, 4, 6, 8})) << "earlier snapshots are unaffected";
  groups.removeAll("odd", [](int value) { return value == 2; });
  EXPECT_EQ(*groups.group("odd"), (std::vector<int>{1, 3, 5, 7, 9})) << "only the named key changes";

  groups.removeAll("odd", [](int) { return true; });
  EXPECT_TRUE(groups.group("odd")->empty());
  groups.append("odd", 11);
  EXPECT_EQ(*groups.group("odd"), (std::vector<int>{11}));
}

TEST(SynchronizedGroups, EachThreadSeesItsOwnWritesWhileOthersWriteAndRead) {
  SynchronizedGroups<std::pair<int, int>> groups;
  std::atomic<int> misses{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&, t] {
      const std::string own = "thread" + std::to_string(t);
      for (int i = 0; i < 300; ++i) {
        groups.append(own, {t, i});
        groups.append("shared", {t, i});
        const auto mine = groups.group(own);
        if (mine->empty() || mine->back() != std::pair{t, i}) {
          ++misses;
        }
        int seen = 0;
        const auto shared = groups.group("shared");  // held: the loop reads through it
        for (const auto& entry : *shared) {
          seen += entry == std::pair{t, i} ? 1 : 0;
        }
        if (seen != 1) {
          ++misses;
        }
        if (i % 3 == 0) {
          groups.removeAll(own, [&](const auto& entry) { return entry.second < i; });
          groups.removeAll("shared", [&](const auto& entry) { return entry.first == t && entry.second < i; });
        }
      }
    });
  }
  for (auto& thread : threads) {
    thread.join();
  }
  EXPECT_EQ(misses, 0);
  for (int t = 0; t < 4; ++t) {
    const auto mine = groups.group("thread" + std::to_string(t));
    EXPECT_TRUE(std::is_sorted(mine->begin(), mine->end())) << "appends keep their order";
  }
}

}  // namespace
}  // namespace vantor::realtime
