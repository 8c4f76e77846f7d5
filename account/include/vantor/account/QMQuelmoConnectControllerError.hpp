#pragma once

#include <cstddef>
#include <functional>
#include <string>
#include <string_view>

namespace vantor::account {

/// Why a sign-in did not happen; `QMQuelmoConnectController::Error`. The
/// ordinals are fixed.
enum class QMQuelmoConnectControllerError {
  /// No account is signed in, or a sign-in ended without one.
  notLoggedIn = 0,
  /// A sign-in was asked for while an account is signed in or stored.
  alreadyLoggedIn = 1,
  /// The account layer could not make an account of the service.
  accountCreationFailed = 2,
  /// The account has no service name, no authoriser, or no authorization page.
  invalidAccount = 3,
  /// The redirect belongs to another service.
  accountMismatch = 4,
  /// The redirect carries no authorization code (for example, access denied).
  authenticationFailed = 5,
  /// The redirect URL could not be read.
  internal = 6,
};

/// The case's name as written in the source, such as "notLoggedIn".
[[nodiscard]] std::string_view caseName(QMQuelmoConnectControllerError error) noexcept;

/// The user-facing title: the text under "Error.<case>.title" in the string
/// table "QMQuelmoConnectController".
[[nodiscard]] std::string localizedTitle(QMQuelmoConnectControllerError error);

/// The user-facing explanation: the text under "Error.<case>.description" in
/// the string table "QMQuelmoConnectController".
[[nodiscard]] std::string localizedDescription(QMQuelmoConnectControllerError error);

}  // namespace vantor::account
