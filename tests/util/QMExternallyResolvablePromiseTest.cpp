#include "vantor/util/QMExternallyResolvablePromise.hpp"

#include <gtest/gtest.h>

#include <array>
#include <atomic>
#include <latch>
#include <memory>
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

// Early handlers run inside fulfill on the settling thread and are released
// afterwards; late ones run at once.
TEST(QMExternallyResolvablePromise, ChainsSeeTheValueOnceWhetherAttachedBeforeOrAfter) {
  QMExternallyResolvablePromise<int> promise;
  EXPECT_FALSE(promise.result().has_value());

  std::vector<int> seen;
  std::thread::id earlyThread;
  auto token = std::make_shared<int>(0);
  std::weak_ptr<int> watch = token;
  promise.done([&, token = std::move(token)](int v) {
    seen.push_back(v);
    earlyThread = std::this_thread::get_id();
  });
  promise.pipe([&](const QMPromiseResult<int>& r) { seen.push_back(r.value() + 100); });
  EXPECT_TRUE(seen.empty());

  bool ranBeforeFulfillReturned = false;
  std::thread([&] {
    promise.fulfill(7);
    ranBeforeFulfillReturned = earlyThread == std::this_thread::get_id();
  }).join();
  EXPECT_TRUE(ranBeforeFulfillReturned);
  EXPECT_EQ(seen, (std::vector<int>{7, 107}));
  EXPECT_TRUE(watch.expired());
  // Only the first outcome counts; later ones are ignored without a report.
  EXPECT_NO_THROW(promise.fulfill(8));
  EXPECT_NO_THROW(promise.reject(authError()));

  promise.done([&](int v) { seen.push_back(v + 200); });
  EXPECT_EQ(seen, (std::vector<int>{7, 107, 207}));
  ASSERT_TRUE(promise.result());
  EXPECT_EQ(promise.result()->value(), 7);
}

TEST(QMExternallyResolvablePromise, ThenMapsValuesFlattensPromisesAndPassesErrorsOn) {
  QMExternallyResolvablePromise<int> first;
  QMExternallyResolvablePromise<std::string> inner;
  auto mapped = first.then([](int v) { return v * 2; });
  auto flattened = mapped.then([&](int) { return inner.promise(); });
  auto failed = flattened.then([](const std::string& s) -> int { throw AuthError(s); });

  first.fulfill(21);
  EXPECT_EQ(mapped.result()->value(), 42);
  // The flattened promise waits for the inner one, not for the body.
  EXPECT_FALSE(flattened.result().has_value());

  inner.fulfill("late");
  EXPECT_EQ(flattened.result()->value(), "late");
  ASSERT_TRUE(failed.result()->isRejected());
  EXPECT_EQ(rejectionText(failed.result()->error()), "late");

  // A rejection skips then bodies and arrives as the very object passed to
  // reject, not a copy or a sliced base.
  QMExternallyResolvablePromise<int> rejected;
  bool bodyRan = false;
  std::exception_ptr caught;
  rejected.then([&](int v) {
            bodyRan = true;
            return v;
          })
      .catchError([&](std::exception_ptr e) { caught = e; });
  auto error = authError("expired");
  rejected.reject(error);
  EXPECT_FALSE(bodyRan);
  EXPECT_EQ(caught, error);
}

TEST(QMExternallyResolvablePromise, VoidPromisesChainAndSettleOnce) {
  QMExternallyResolvablePromise<void> ready;
  int doneCalls = 0;
  auto counted = ready.done([&] { ++doneCalls; }).then([] { return 5; });
  ready.fulfill();
  ready.fulfill();
  EXPECT_EQ(doneCalls, 1);
  EXPECT_EQ(counted.result()->value(), 5);
}

// One thread settles (then tries again) while others attach chains, so
// attaching races settlement. Every chain must see the first outcome once.
TEST(QMExternallyResolvablePromise, ConcurrentChainingAndSettlementDeliverEachOutcomeOnce) {
  constexpr int attachers = 3, chainsPerAttacher = 20;
  for (int round = 0; round < 100; ++round) {
    const bool rejectThisRound = round % 2 == 1;
    QMExternallyResolvablePromise<int> promise;
    std::array<std::atomic<int>, attachers * chainsPerAttacher> calls{};
    std::atomic<int> wrongOutcomes{0};
    std::latch start(attachers + 1);
    auto attach = [&](int a) {
      start.arrive_and_wait();
      for (int c = 0; c < chainsPerAttacher; ++c) {
        auto& slot = calls[static_cast<std::size_t>(a * chainsPerAttacher + c)];
        promise.then([](int v) { return v; })
            .done([&](int v) {
              wrongOutcomes += rejectThisRound || v != 9 ? 1 : 0;
              ++slot;
            })
            .catchError([&](std::exception_ptr) {
              wrongOutcomes += rejectThisRound ? 0 : 1;
              ++slot;
            });
      }
    };
    {
      std::vector<std::jthread> threads;
      for (int a = 0; a < attachers; ++a) {
        threads.emplace_back(attach, a);
      }
      start.arrive_and_wait();
      rejectThisRound ? promise.reject(authError()) : promise.fulfill(9);
      promise.fulfill(10);
    }
    for (const auto& slot : calls) {
      ASSERT_EQ(slot.load(), 1) << "round " << round;
    }
    ASSERT_EQ(wrongOutcomes.load(), 0) << "round " << round;
  }
}

TEST(QMExternallyResolvablePromise, DestroyingOrReplacingAPendingOneBreaksItsChains) {
  auto handedOut = QMExternallyResolvablePromise<int>().promise();
  ASSERT_TRUE(handedOut.result().has_value());
  EXPECT_THROW(handedOut.result()->value(), boost::broken_promise);

  QMExternallyResolvablePromise<int> target;
  auto old = target.promise();
  target = QMExternallyResolvablePromise<int>();
  ASSERT_TRUE(old.result().has_value());
  EXPECT_THROW(old.result()->value(), boost::broken_promise);
  target.fulfill(3);
  EXPECT_EQ(target.result()->value(), 3);
}

TEST(QMExternallyResolvablePromiseDeathTest, MisuseIsFatalWithAClearMessage) {
  QMExternallyResolvablePromise<int> source;
  QMExternallyResolvablePromise<int> moved(std::move(source));
  source.fulfill(1);  // NOLINT(bugprone-use-after-move): no resolver, so nothing happens
  EXPECT_FALSE(moved.result().has_value());
  EXPECT_DEATH(source.pipe([](const QMPromiseResult<int>&) {}),
               "QMExternallyResolvablePromise: the promise is missing \\(the object was moved from\\)");
  EXPECT_DEATH((void)source.result(), "the promise is missing");
  EXPECT_DEATH(moved.reject(nullptr), "QMExternallyResolvablePromise: reject needs an error");
}

}  // namespace
}  // namespace vantor::util
