#pragma once

// Internal helpers shared by the promise types; not part of the interface.

#include <exception>
#include <type_traits>
#include <utility>

#include <boost/thread/future.hpp>

#include <vantor/util/QMPromiseResult.hpp>

namespace vantor::util::detail {

/// Settles `promise` with a value unless it has already settled; a promise
/// settles once and later outcomes are dropped without a report.
template <typename T, typename... Value>
void fulfillPromise(boost::promise<T>& promise, Value&&... value) {
  try {
    promise.set_value(std::forward<Value>(value)...);
  } catch (const boost::promise_already_satisfied&) {
  }
}

/// Rejects `promise` with `error` (not null) unless it has already settled.
template <typename T>
void rejectPromise(boost::promise<T>& promise, const std::exception_ptr& error) {
  try {
    std::rethrow_exception(error);
  } catch (...) {
    // boost::exception_ptr's converting constructor (Boost 1.81) wraps the
    // exception in flight instead of its argument, so convert only while
    // `error` is the one in flight. Readers then get the original object,
    // with its dynamic type, back from the future.
    try {
      promise.set_exception(boost::exception_ptr(error));
    } catch (const boost::promise_already_satisfied&) {
    }
  }
}

template <typename T>
void settlePromise(boost::promise<T>& promise, const QMPromiseResult<T>& result) {
  if (result.isRejected()) {
    rejectPromise(promise, result.error());
  } else if constexpr (std::is_void_v<T>) {
    fulfillPromise(promise);
  } else {
    fulfillPromise(promise, result.value());
  }
}

/// The outcome of a future that is ready.
template <typename T>
QMPromiseResult<T> resultOf(const boost::shared_future<T>& settled) {
  try {
    if constexpr (std::is_void_v<T>) {
      settled.get();
      return QMPromiseResult<T>::fulfilled();
    } else {
      return QMPromiseResult<T>::fulfilled(settled.get());
    }
  } catch (...) {
    return QMPromiseResult<T>::rejected(std::current_exception());
  }
}

}  // namespace vantor::util::detail
