#pragma once

#include <optional>
#include <type_traits>
#include <utility>

#include <boost/thread/future.hpp>

#include <vantor/util/QMPromiseResult.hpp>
#include <vantor/util/QMThenable.hpp>
#include <vantor/util/detail/PromiseSettling.hpp>

namespace vantor::util {

/// A read-only promise of a `T`: what chains hand on, and what an
/// externally resolvable promise hands out. It can be chained on (see
/// QMThenable for where handlers run) but not settled; whoever holds the
/// matching resolver settles it.
///
/// Copies share one outcome. If the resolver is destroyed without settling,
/// the promise is rejected with `boost::broken_promise`, so chains never wait
/// for an outcome that cannot come.
///
/// Thread safety: const members may be called on one object from any number
/// of threads at once; assigning to an object needs exclusive access.
template <typename T>
class QMPromise : public QMThenable<QMPromise<T>, T> {
 public:
  using Result = QMPromiseResult<T>;

  /// Takes over a Boost future; `future` must be valid (not default-made).
  explicit QMPromise(boost::shared_future<T> future) : future_(std::move(future)) {}

  /// Calls `handler(const QMPromiseResult<T>&)` exactly once with the
  /// outcome, when the promise settles or at once if it has settled. An
  /// exception thrown by `handler` is discarded.
  template <typename Handler>
  void pipe(Handler&& handler) const {
    static_assert(std::is_invocable_v<std::decay_t<Handler>&, const Result&>,
                  "pipe() takes a handler of const QMPromiseResult<T>&");
    // launch::sync: run on the settling (or attaching) thread rather than
    // start a thread per continuation, as launch::async would.
    future_.then(boost::launch::sync,
                 [handler = std::forward<Handler>(handler)](boost::shared_future<T> settled) mutable {
                   handler(detail::resultOf(settled));
                 });
  }

  /// `std::nullopt` while pending, else the outcome (the value is copied).
  [[nodiscard]] std::optional<Result> result() const {
    if (!future_.is_ready()) {
      return std::nullopt;
    }
    return detail::resultOf(future_);
  }

  /// The underlying Boost future, to wait on or to compose with Boost's own
  /// operations. Reading it rethrows a rejection's original error.
  [[nodiscard]] const boost::shared_future<T>& future() const noexcept { return future_; }

 private:
  boost::shared_future<T> future_;
};

}  // namespace vantor::util
