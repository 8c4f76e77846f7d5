#pragma once

#include <exception>
#include <functional>
#include <type_traits>
#include <utility>

#include <boost/thread/future.hpp>

#include <vantor/util/QMPromiseResult.hpp>
#include <vantor/util/detail/PromiseSettling.hpp>

namespace vantor::util {

template <typename T>
class QMPromise;

namespace detail {

template <typename T, typename F>
struct BodyResult {
  using type = std::invoke_result_t<F&, const T&>;
};
template <typename F>
struct BodyResult<void, F> {
  using type = std::invoke_result_t<F&>;
};

// A body that returns a promise chains on it: the next promise takes its
// outcome instead of holding the promise as a value.
template <typename R>
struct Flattened {
  using type = R;
  static constexpr bool isPromise = false;
};
template <typename U>
struct Flattened<QMPromise<U>> {
  using type = U;
  static constexpr bool isPromise = true;
};

template <typename R>
concept ThenableLike = requires(const R& thenable) { thenable.result(); };

template <typename T, typename F>
decltype(auto) invokeBody(F& body, const QMPromiseResult<T>& result) {
  if constexpr (std::is_void_v<T>) {
    return std::invoke(body);
  } else {
    return std::invoke(body, result.value());
  }
}

}  // namespace detail

/// The chaining operations every promise type offers, built only on the two
/// operations the derived type provides:
///   - `pipe(handler)`: calls `handler(const QMPromiseResult<T>&)` exactly
///     once, when the promise settles (or at once if it already has);
///   - `result()`: `std::nullopt` while pending, else the outcome.
///
/// Where handlers run: no executor and no thread of their own. A handler
/// attached while the promise is pending runs on the thread that settles it,
/// inside that thread's `fulfill`/`reject` call, before the call returns. A
/// handler attached after the promise settled runs at once on the attaching
/// thread, before `pipe`/`then`/... returns. Either way no lock of the
/// promise is held while it runs, so a handler may chain further or settle
/// other promises; it should be short, and hop to a queue of its own (for
/// example the main event loop) for longer work. Handlers for one promise run
/// in the order they were attached, except that handlers attached during
/// settlement may run before it finishes.
///
/// Thread safety: all chaining operations are const and may be called from
/// any thread, concurrently with each other and with settlement.
template <typename Derived, typename T>
class QMThenable {
 public:
  using Value = T;

  /// Chains `body` on the value: `body(const T&)` (`body()` for `void`)
  /// returns the next value, nothing, or a `QMPromise<U>` whose outcome the
  /// next promise takes. Returns the next promise. A rejection skips `body`
  /// and passes on; an exception thrown by `body` rejects the next promise.
  template <typename F>
  auto then(F&& body) const {
    using Returned = typename detail::BodyResult<T, std::decay_t<F>>::type;
    using Flat = detail::Flattened<Returned>;
    using Next = typename Flat::type;
    static_assert(Flat::isPromise || !detail::ThenableLike<Returned>,
                  "to chain on another promise, return its QMPromise (for an externally "
                  "resolvable promise: its promise())");

    boost::promise<Next> next;
    QMPromise<Next> chained(next.get_future().share());
    self().pipe([next = std::move(next), body = std::forward<F>(body)](
                    const QMPromiseResult<T>& result) mutable {
      if (result.isRejected()) {
        detail::rejectPromise(next, result.error());
        return;
      }
      try {
        if constexpr (Flat::isPromise) {
          detail::invokeBody(body, result).pipe(
              [next = std::move(next)](const QMPromiseResult<Next>& inner) mutable {
                detail::settlePromise(next, inner);
              });
        } else if constexpr (std::is_void_v<Next>) {
          detail::invokeBody(body, result);
          detail::fulfillPromise(next);
        } else {
          detail::fulfillPromise(next, detail::invokeBody(body, result));
        }
      } catch (...) {
        detail::rejectPromise(next, std::current_exception());
      }
    });
    return chained;
  }

  /// Chains `body(const T&)` (`body()` for `void`), which returns nothing, on
  /// the value. The returned `QMPromise<void>` settles once `body` has run:
  /// fulfilled, or rejected with the earlier rejection or with what `body`
  /// threw.
  template <typename F>
  auto done(F&& body) const {
    static_assert(std::is_void_v<typename detail::BodyResult<T, std::decay_t<F>>::type>,
                  "done() takes a body that returns nothing; use then() to pass a value on");
    return then(std::forward<F>(body));
  }

  /// Calls `handler(std::exception_ptr)` with the error if the promise is
  /// rejected; does nothing if it is fulfilled. An exception thrown by
  /// `handler` is discarded.
  template <typename F>
  void catchError(F&& handler) const {
    static_assert(std::is_invocable_v<std::decay_t<F>&, std::exception_ptr>,
                  "catchError() takes a handler of std::exception_ptr");
    self().pipe([handler = std::forward<F>(handler)](const QMPromiseResult<T>& result) mutable {
      if (result.isRejected()) {
        std::invoke(handler, result.error());
      }
    });
  }

 protected:
  QMThenable() = default;
  ~QMThenable() = default;
  QMThenable(const QMThenable&) = default;
  QMThenable(QMThenable&&) noexcept = default;
  QMThenable& operator=(const QMThenable&) = default;
  QMThenable& operator=(QMThenable&&) noexcept = default;

 private:
  const Derived& self() const { return static_cast<const Derived&>(*this); }
};

}  // namespace vantor::util

// then() returns QMPromise, whose definition needs this one first.
#include <vantor/util/QMPromise.hpp>
