#include "vantor/realtime/Delegated.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "vantor/realtime/ChannelBindings.hpp"

namespace vantor::realtime {
namespace {

struct Owner {
  int calls = 0;
};

TEST(Delegated, WeakOwnerIsSkippedOnceReleased) {
  auto owner = std::make_shared<Owner>();
  Delegated<int, int> delegated;
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

Binding numbered(std::string event, int ref, std::vector<int>* calls = nullptr) {
  Delegated<Message, void> callback;
  callback.manuallyDelegate([calls, ref](const Message&) {
    if (calls != nullptr) {
      calls->push_back(ref);
    }
  });
  return Binding{std::move(event), ref, std::move(callback)};
}

std::vector<int> refsOf(const ChannelBindings::Snapshot& bindings) {
  std::vector<int> refs;
  for (const auto& binding : *bindings) {
    refs.push_back(binding.ref);
  }
  return refs;
}

std::vector<int> callsOf(const ChannelBindings::ReplySnapshot& callbacks,
                         std::vector<int>& calls) {
  calls.clear();
  const Message message("", std::nullopt, "t", "e", Payload{});
  for (const auto& callback : callbacks) {
    callback.call(message);
  }
  return calls;
}

TEST(ChannelBindings, ReplyEventsAreFiledByTheirNumberInOrder) {
  ChannelBindings bindings;
  std::vector<int> calls;
  bindings.append(numbered("chan_reply_7", 1, &calls));
  bindings.append(numbered("chan_reply_07", 2, &calls));  // not the reference 7
  bindings.append(numbered("chan_reply_7", 3, &calls));
  bindings.append(numbered("chan_reply_18446744073709551615", 4, &calls));
  bindings.append(numbered("chan_reply_18446744073709551616", 5, &calls));  // too large: a name
  for (auto name : {"chan_reply_", "chan_reply_-1", "chan_reply_+1"}) {
    EXPECT_EQ(ChannelBindings::replyNumber(name), std::nullopt) << name;
  }

  EXPECT_EQ(callsOf(bindings.replyGroup(7), calls), (std::vector<int>{1, 3}));
  EXPECT_EQ(callsOf(bindings.replyGroup(18446744073709551615U), calls), (std::vector<int>{4}));
  EXPECT_EQ(refsOf(bindings.group("chan_reply_07")), (std::vector<int>{2}));
  EXPECT_EQ(refsOf(bindings.group("chan_reply_18446744073709551616")), (std::vector<int>{5}));
  EXPECT_EQ(bindings.size(), 5U);

  bindings.remove("chan_reply_7", 1);  // the first goes, the second takes its place
  EXPECT_EQ(callsOf(bindings.replyGroup(7), calls), (std::vector<int>{3}));
  bindings.append(numbered("chan_reply_7", 6, &calls));
  // A push files its reply binding by number: the same event, in order.
  bindings.appendReply(7, 7, numbered("", 7, &calls).callback);
  bindings.append(numbered("chan_reply_7", 8, &calls));
  EXPECT_EQ(callsOf(bindings.replyGroup(7), calls), (std::vector<int>{3, 6, 7, 8}));
  bindings.removeReply(7, 6);
  EXPECT_EQ(callsOf(bindings.replyGroup(7), calls), (std::vector<int>{3, 7, 8}));
  bindings.remove("chan_reply_7", std::nullopt);
  EXPECT_TRUE(bindings.replyGroup(7).empty());
  EXPECT_EQ(bindings.size(), 3U);

  // Emptying the names leaves the replies, and the other way round.
  bindings.remove("chan_reply_07", std::nullopt);
  bindings.remove("chan_reply_18446744073709551616", std::nullopt);
  EXPECT_EQ(callsOf(bindings.replyGroup(18446744073709551615U), calls), (std::vector<int>{4}));
  bindings.append(numbered("named", 9));
  bindings.removeReply(18446744073709551615U, std::nullopt);
  EXPECT_EQ(refsOf(bindings.group("named")), (std::vector<int>{9}));
  bindings.remove("named", 9);
  EXPECT_EQ(bindings.size(), 0U);
  bindings.appendReply(1, 10, numbered("", 10, &calls).callback);
  EXPECT_EQ(callsOf(bindings.replyGroup(1), calls), (std::vector<int>{10}));
}

TEST(ChannelBindings, EachThreadSeesItsOwnWritesWhileOthersWriteAndRead) {
  ChannelBindings bindings;
  std::atomic<int> misses{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&, t] {
      const std::string own = "thread" + std::to_string(t);
      for (int i = 0; i < 300; ++i) {
        const int ref = t * 1000 + i;
        const auto reply = static_cast<std::uint64_t>(ref);
        bindings.append(numbered(own, ref));
        bindings.append(numbered("shared", ref));
        bindings.append(numbered("chan_reply_" + std::to_string(reply), ref));
        const auto mine = bindings.group(own);
        if (mine->empty() || mine->back().ref != ref) {
          ++misses;
        }
        int seen = 0;
        const auto shared = bindings.group("shared");  // held: the loop reads through it
        for (const auto& binding : *shared) {
          seen += binding.ref == ref ? 1 : 0;
        }
        if (seen != 1 || bindings.replyGroup(reply).size() != 1) {
          ++misses;
        }
        bindings.remove("chan_reply_" + std::to_string(reply), std::nullopt);
        if (!bindings.replyGroup(reply).empty()) {
          ++misses;
        }
        if (i % 3 == 0) {
          bindings.remove(own, ref - 1);
          bindings.remove("shared", ref - 1);
        }
      }
    });
  }
  for (auto& thread : threads) {
    thread.join();
  }
  EXPECT_EQ(misses, 0);
  for (int t = 0; t < 4; ++t) {
    const auto mine = refsOf(bindings.group("thread" + std::to_string(t)));
    EXPECT_TRUE(std::is_sorted(mine.begin(), mine.end())) << "appends keep their order";
  }
}

}  // namespace
}  // namespace vantor::realtime
