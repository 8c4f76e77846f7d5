#pragma once

#include <cstddef>
#include <exception>
#include <type_traits>
#include <utility>
#include <variant>

#include <vantor/platform/Fatal.hpp>

namespace vantor::util {

/// The settled outcome of a promise: fulfilled with a value (no value when
/// `T` is `void`), or rejected with an error.
///
/// Thread safety: a plain value. Const members of one object may be called
/// from any number of threads at once; mutating one object needs exclusive
/// access.
template <typename T>
class QMPromiseResult {
 public:
  /// What a fulfilled result holds: `T`, or `std::monostate` for `void`.
  using Stored = std::conditional_t<std::is_void_v<T>, std::monostate, T>;

  static QMPromiseResult fulfilled()
    requires std::is_void_v<T>
  {
    return QMPromiseResult(std::in_place_index<kFulfilled>, std::monostate{});
  }

  static QMPromiseResult fulfilled(Stored value)
    requires(!std::is_void_v<T>)
  {
    return QMPromiseResult(std::in_place_index<kFulfilled>, std::move(value));
  }

  /// A rejection carries a real error: a null `error` stops the process with
  /// "QMPromiseResult: a rejection needs an error".
  static QMPromiseResult rejected(std::exception_ptr error) {
    if (!error) {
      platform::fatalError("QMPromiseResult: a rejection needs an error");
    }
    return QMPromiseResult(std::in_place_index<kRejected>, std::move(error));
  }

  [[nodiscard]] bool isFulfilled() const noexcept { return outcome_.index() == kFulfilled; }
  [[nodiscard]] bool isRejected() const noexcept { return outcome_.index() == kRejected; }

  /// The fulfilled value (nothing for `void`). On a rejected result it
  /// rethrows the error, as reading a failed future does.
  decltype(auto) value() const {
    if (isRejected()) {
      std::rethrow_exception(std::get<kRejected>(outcome_));
    }
    if constexpr (std::is_void_v<T>) {
      return;
    } else {
      return (std::get<kFulfilled>(outcome_));
    }
  }

  /// The error of a rejected result; null when fulfilled.
  [[nodiscard]] std::exception_ptr error() const noexcept {
    return isRejected() ? std::get<kRejected>(outcome_) : nullptr;
  }

 private:
  // Indices rather than types, so that T may itself be std::exception_ptr.
  static constexpr std::size_t kFulfilled = 0;
  static constexpr std::size_t kRejected = 1;

  template <std::size_t Index, typename Arg>
  QMPromiseResult(std::in_place_index_t<Index> index, Arg&& arg)
      : outcome_(index, std::forward<Arg>(arg)) {}

  std::variant<Stored, std::exception_ptr> outcome_;
};

}  // namespace vantor::util
