#pragma once

#include <exception>
#include <optional>
#include <type_traits>
#include <utility>

#include <boost/thread/future.hpp>

#include <vantor/platform/Fatal.hpp>
#include <vantor/util/QMPromise.hpp>
#include <vantor/util/QMPromiseResult.hpp>
#include <vantor/util/QMThenable.hpp>
#include <vantor/util/detail/PromiseSettling.hpp>

namespace vantor::util {

/// A promise kept together with its own resolver: one piece of code chains on
/// it (or hands out `promise()`), another settles it later with `fulfill` or
/// `reject`, from any thread. `T` may be `void`.
///
/// Pending from construction until the first `fulfill` or `reject`; later
/// calls of either are ignored without a report, and the first outcome
/// stays. Chaining (`pipe`, `then`, `done`, `catchError`, see QMThenable)
/// sees the outcome exactly once, whether attached before or after it
/// settled. Handlers attached before settlement run on the settling thread,
/// inside `fulfill`/`reject`; handlers attached afterwards run at once on the
/// attaching thread.
///
/// Lifetime: destroying the object, or assigning another over it, while it is
/// still pending rejects it with `boost::broken_promise`, so chains and
/// handed-out promises do not wait forever. A handler that captures the
/// object that it is attached to keeps it alive until it settles.
///
/// Moving leaves the source without promise and resolver: `fulfill` and
/// `reject` on it do nothing; `pipe`, `result`, `promise` and the chaining
/// operations on it stop the process with "QMExternallyResolvablePromise:
/// the promise is missing (the object was moved from)".
///
/// Thread safety: `fulfill`, `reject`, `result`, `promise` and the chaining
/// operations may be called on one object from any threads at once. Moving
/// and destruction need exclusive access.
template <typename T>
class QMExternallyResolvablePromise
    : public QMThenable<QMExternallyResolvablePromise<T>, T> {
 public:
  using Result = QMPromiseResult<T>;

  QMExternallyResolvablePromise() {
    resolver_.emplace();
    promise_.emplace(resolver_->get_future().share());
  }

  QMExternallyResolvablePromise(const QMExternallyResolvablePromise&) = delete;
  QMExternallyResolvablePromise& operator=(const QMExternallyResolvablePromise&) = delete;

  QMExternallyResolvablePromise(QMExternallyResolvablePromise&& other) noexcept
      : promise_(std::exchange(other.promise_, std::nullopt)),
        resolver_(std::exchange(other.resolver_, std::nullopt)) {}

  QMExternallyResolvablePromise& operator=(QMExternallyResolvablePromise&& other) noexcept {
    if (this != &other) {
      // Destroy the old resolver first: Boost's move assignment would drop a
      // pending state without breaking it, leaving its chains waiting.
      resolver_.reset();
      promise_ = std::exchange(other.promise_, std::nullopt);
      resolver_ = std::exchange(other.resolver_, std::nullopt);
    }
    return *this;
  }

  ~QMExternallyResolvablePromise() = default;

  /// Fulfils the promise with `value` unless it has already settled.
  void fulfill(typename Result::Stored value)
    requires(!std::is_void_v<T>)
  {
    if (resolver_) {
      detail::fulfillPromise(*resolver_, std::move(value));
    }
  }

  /// Fulfils a promise of `void` unless it has already settled.
  void fulfill()
    requires std::is_void_v<T>
  {
    if (resolver_) {
      detail::fulfillPromise(*resolver_);
    }
  }

  /// Rejects the promise with `error` unless it has already settled. Chains
  /// receive this very exception object. A null `error` stops the process
  /// with "QMExternallyResolvablePromise: reject needs an error".
  void reject(std::exception_ptr error) {
    if (!error) {
      platform::fatalError("QMExternallyResolvablePromise: reject needs an error");
    }
    if (resolver_) {
      detail::rejectPromise(*resolver_, error);
    }
  }

  /// Calls `handler(const QMPromiseResult<T>&)` exactly once with the
  /// outcome (see QMPromise::pipe).
  template <typename Handler>
  void pipe(Handler&& handler) const {
    requirePromise().pipe(std::forward<Handler>(handler));
  }

  /// `std::nullopt` while pending, else the outcome.
  [[nodiscard]] std::optional<Result> result() const { return requirePromise().result(); }

  /// The read-only side, to hand to code that should chain but not settle.
  [[nodiscard]] QMPromise<T> promise() const { return requirePromise(); }

 private:
  const QMPromise<T>& requirePromise() const {
    if (!promise_) {
      platform::fatalError(
          "QMExternallyResolvablePromise: the promise is missing (the object was moved from)");
    }
    return *promise_;
  }

  std::optional<QMPromise<T>> promise_;
  std::optional<boost::promise<T>> resolver_;
};

}  // namespace vantor::util
