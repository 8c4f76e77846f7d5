#include "vantor/util/QMExternallyResolvablePromise.hpp"

#include <gtest/gtest.h>

#include <array>
#include <atomic>
#include <latch>
#include <memory>
#include <ostream>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

namespace vantor::util {
namespace {

struct AuthError : std::runtime_error {
  using std::runtime_error::runtime_error;
};

std::exception_ptr authError(const char* what = "denied") {
  return std::make_exception_ptr(AuthError(what));
}

// The error a result carries, as its original type.
std::string rejectionText(const std::exception_ptr& error) {
  try {
    std::rethrow_exception(error);
  } catch (const AuthError& e) {
    return e.what();
  } catch (...) {
    return "<not an AuthError>";
  }
}

TEST(QMExternallyResolvablePromise, ChainsSeeTheValueOnceWhetherAttachedBeforeOrAfter) {
  QMExternallyResolvablePromise<int> promise;
  EXPECT_FALSE(promise.result().has_value());

  std::vector<int> seen;
  promise.done([&](int v) { seen.push_back(v); });
  promise.pipe([&](const QMPromiseResult<int>& r) { seen.push_back(r.value() + 100); });
  EXPECT_TRUE(seen.empty());

  promise.fulfill(7);
  EXPECT_EQ(seen, (std::vector<int>{7, 107}));

  promise.done([&](int v) { seen.push_back(v + 200); });
  EXPECT_EQ(seen, (std::vector<int>{7, 107, 207}));

  auto result = promise.result();
  ASSERT_TRUE(result.has_value());
  ASSERT_TRUE(result->isFulfilled());
  EXPECT_EQ(result->value(), 7);
}

enum class Settle { fulfill1, fulfill2, reject };

struct SecondOutcomeCase {
  const char* name;
  Settle first;
  Settle second;
};

void PrintTo(const SecondOutcomeCase& c, std::ostream* os) { *os << c.name; }

class SecondOutcome : public testing::TestWithParam<SecondOutcomeCase> {
 protected:
  static void apply(QMExternallyResolvablePromise<int>& promise, Settle how) {
    switch (how) {
      case Settle::fulfill1:
        promise.fulfill(1);
        break;
      case Settle::fulfill2:
        promise.fulfill(2);
        break;
      case Settle::reject:
        promise.reject(authError());
        break;
    }
  }
};

TEST_P(SecondOutcome, IsIgnoredSilentlyAndTheFirstStays) {
  QMExternallyResolvablePromise<int> promise;
  int calls = 0;
  promise.pipe([&](const QMPromiseResult<int>&) { ++calls; });

  apply(promise, GetParam().first);
  EXPECT_NO_THROW(apply(promise, GetParam().second));

  EXPECT_EQ(calls, 1);
  auto result = promise.result();
  ASSERT_TRUE(result.has_value());
  if (GetParam().first == Settle::reject) {
    ASSERT_TRUE(result->isRejected());
    EXPECT_EQ(rejectionText(result->error()), "denied");
  } else {
    ASSERT_TRUE(result->isFulfilled());
    EXPECT_EQ(result->value(), GetParam().first == Settle::fulfill1 ? 1 : 2);
  }
}

INSTANTIATE_TEST_SUITE_P(
    QMExternallyResolvablePromise, SecondOutcome,
    testing::Values(SecondOutcomeCase{"FulfillTwice", Settle::fulfill1, Settle::fulfill2},
                    SecondOutcomeCase{"FulfillAfterReject", Settle::reject, Settle::fulfill1},
                    SecondOutcomeCase{"RejectAfterFulfill", Settle::fulfill2, Settle::reject}),
    [](const auto& info) { return info.param.name; });

TEST(QMExternallyResolvablePromise, RejectionSkipsThenBodiesAndKeepsTheOriginalError) {
  QMExternallyResolvablePromise<int> promise;
  bool bodyRan = false;
  auto chained = promise.then([&](int v) {
    bodyRan = true;
    return std::to_string(v);
  });
  std::exception_ptr caught;
  chained.catchError([&](std::exception_ptr e) { caught = e; });

  auto error = authError("expired");
  promise.reject(error);

  EXPECT_FALSE(bodyRan);
  // The very object passed to reject, not a copy or a sliced base.
  EXPECT_EQ(caught, error);
  EXPECT_THROW(chained.future().get(), AuthError);
  EXPECT_EQ(rejectionText(promise.result()->error()), "expired");
}

TEST(QMExternallyResolvablePromise, ThenMapsValuesFlattensPromisesAndTurnsThrowsIntoRejections) {
  QMExternallyResolvablePromise<int> first;
  QMExternallyResolvablePromise<std::string> inner;

  auto mapped = first.then([](int v) { return v * 2; });
  auto flattened = mapped.then([&](int) { return inner.promise(); });
  auto failed = flattened.then([](const std::string& s) -> int { throw AuthError(s); });

  first.fulfill(21);
  EXPECT_EQ(mapped.result()->value(), 42);
  // The flattened promise waits for the inner one, not for the body.
  EXPECT_FALSE(flattened.result().has_value());

  std::thread resolver([&] { inner.fulfill("late"); });
  resolver.join();
  EXPECT_EQ(flattened.result()->value(), "late");
  ASSERT_TRUE(failed.result()->isRejected());
  EXPECT_EQ(rejectionText(failed.result()->error()), "late");
}

TEST(QMExternallyResolvablePromise, VoidPromisesChainAndReject) {
  QMExternallyResolvablePromise<void> ready;
  int doneCalls = 0;
  auto counted = ready.done([&] { ++doneCalls; }).then([] { return 5; });
  EXPECT_FALSE(ready.result().has_value());

  ready.fulfill();
  ready.fulfill();
  EXPECT_EQ(doneCalls, 1);
  EXPECT_TRUE(ready.result()->isFulfilled());
  EXPECT_EQ(counted.result()->value(), 5);

  QMExternallyResolvablePromise<void> failing;
  std::exception_ptr caught;
  failing.catchError([&](std::exception_ptr e) { caught = e; });
  failing.reject(authError());
  EXPECT_EQ(rejectionText(caught), "denied");
}

TEST(QMExternallyResolvablePromise, HandlersRunOnTheSettlingThreadOrAtOnceOnTheAttachingOne) {
  QMExternallyResolvablePromise<int> promise;
  std::thread::id earlyThread;
  promise.done([&](int) { earlyThread = std::this_thread::get_id(); });

  std::thread::id settler;
  bool ranBeforeFulfillReturned = false;
  std::thread([&] {
    settler = std::this_thread::get_id();
    promise.fulfill(1);
    ranBeforeFulfillReturned = earlyThread == settler;
  }).join();
  EXPECT_TRUE(ranBeforeFulfillReturned);

  std::thread::id lateThread;
  promise.done([&](int) { lateThread = std::this_thread::get_id(); });
  EXPECT_EQ(lateThread, std::this_thread::get_id());
}

// Settles from one thread while others attach chains, many times over, so
// that attaching races settlement. Every chain must run exactly once.
TEST(QMExternallyResolvablePromise, ConcurrentChainingAndSettlementDeliverEachOutcomeOnce) {
  constexpr int rounds = 100;
  constexpr int attachers = 3;
  constexpr int chainsPerAttacher = 20;
  for (int round = 0; round < rounds; ++round) {
    const bool rejectThisRound = round % 2 == 1;
    QMExternallyResolvablePromise<int> promise;
    std::array<std::atomic<int>, attachers * chainsPerAttacher> calls{};
    std::atomic<int> wrongOutcomes{0};
    std::latch start(attachers + 1);

    std::vector<std::thread> threads;
    for (int a = 0; a < attachers; ++a) {
      threads.emplace_back([&, a] {
        start.arrive_and_wait();
        for (int c = 0; c < chainsPerAttacher; ++c) {
          auto& slot = calls[static_cast<std::size_t>(a * chainsPerAttacher + c)];
          if (c % 2 == 0) {
            promise.pipe([&, rejectThisRound](const QMPromiseResult<int>& r) {
              if (r.isRejected() != rejectThisRound || (r.isFulfilled() && r.value() != 9)) {
                ++wrongOutcomes;
              }
              ++slot;
            });
          } else {
            promise.then([](int v) { return v; })
                .done([&](int v) {
                  wrongOutcomes += v == 9 ? 0 : 1;
                  ++slot;
                })
                .catchError([&](std::exception_ptr) { ++slot; });
          }
        }
      });
    }
    threads.emplace_back([&] {
      start.arrive_and_wait();
      if (rejectThisRound) {
        promise.reject(authError());
      } else {
        promise.fulfill(9);
      }
      promise.fulfill(10);
    });
    for (auto& thread : threads) {
      thread.join();
    }

    for (const auto& slot : calls) {
      ASSERT_EQ(slot.load(), 1) << "round " << round;
    }
    ASSERT_EQ(wrongOutcomes.load(), 0) << "round " << round;
  }
}

TEST(QMExternallyResolvablePromise, DestroyingOrReplacingAPendingOneBreaksItsChains) {
  std::optional<QMPromise<int>> handedOut;
  {
    QMExternallyResolvablePromise<int> promise;
    handedOut = promise.promise();
  }
  ASSERT_TRUE(handedOut->result().has_value());
  EXPECT_THROW(handedOut->result()->value(), boost::broken_promise);

  QMExternallyResolvablePromise<int> target;
  auto old = target.promise();
  QMExternallyResolvablePromise<int> replacement;
  target = std::move(replacement);
  ASSERT_TRUE(old.result().has_value());
  EXPECT_THROW(old.result()->value(), boost::broken_promise);
  target.fulfill(3);
  EXPECT_EQ(target.result()->value(), 3);
}

TEST(QMExternallyResolvablePromise, CapturingHandlersAreReleasedOnceSettled) {
  auto token = std::make_shared<int>(0);
  std::weak_ptr<int> watch = token;
  QMExternallyResolvablePromise<int> promise;
  promise.done([token = std::move(token)](int v) { *token = v; });
  EXPECT_FALSE(watch.expired());
  promise.fulfill(1);
  EXPECT_TRUE(watch.expired());
}

TEST(QMExternallyResolvablePromiseDeathTest, MovedFromObjectIgnoresSettlingButCannotBeChained) {
  QMExternallyResolvablePromise<int> source;
  QMExternallyResolvablePromise<int> moved(std::move(source));
  source.fulfill(1);  // NOLINT(bugprone-use-after-move): no resolver, so nothing happens
  EXPECT_FALSE(moved.result().has_value());
  EXPECT_DEATH(source.pipe([](const QMPromiseResult<int>&) {}),
               "QMExternallyResolvablePromise: the promise is missing \\(the object was moved "
               "from\\)");
  EXPECT_DEATH((void)source.result(), "the promise is missing");
}

TEST(QMExternallyResolvablePromiseDeathTest, RejectingWithoutAnErrorIsFatal) {
  QMExternallyResolvablePromise<int> promise;
  EXPECT_DEATH(promise.reject(nullptr), "QMExternallyResolvablePromise: reject needs an error");
}

}  // namespace
}  // namespace vantor::util
