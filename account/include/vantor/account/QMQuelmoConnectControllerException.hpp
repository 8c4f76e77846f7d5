#pragma once

#include <exception>
#include <string>

#include <vantor/account/QMQuelmoConnectControllerError.hpp>

namespace vantor::account {

/// What the sign-in controller throws, and what its promises are rejected
/// with: one `QMQuelmoConnectControllerError` case.
///
/// Thread safety: a plain value.
class QMQuelmoConnectControllerException : public std::exception {
 public:
  explicit QMQuelmoConnectControllerException(QMQuelmoConnectControllerError error);

  [[nodiscard]] QMQuelmoConnectControllerError error() const noexcept { return error_; }

  /// "QMQuelmoConnectController.Error.<case>: <description>".
  [[nodiscard]] const char* what() const noexcept override { return message_.c_str(); }

 private:
  QMQuelmoConnectControllerError error_;
  std::string message_;
};

}  // namespace vantor::account
