#pragma once

#include <memory>
#include <string>
#include <string_view>

#include <vantor/account/QMAccount.hpp>

namespace vantor::account {

/// An account of the maker's account service, the one the sign-in
/// controller signs in to.
///
/// Thread safety: as QMAccount.
class QMQuelmoConnectAccount : public QMAccount {
 public:
  /// The class type identifier: the maker's domain reversed, "accounts", and
  /// the class name.
  static constexpr std::string_view typeIdentifier = "com.quelmo.accounts.QMQuelmoConnectAccount";

  /// A new account under `uuid` (upper-case UUID string); see
  /// `QMAccountFactory` for making one with a fresh identifier.
  explicit QMQuelmoConnectAccount(std::string uuid) : QMAccount(std::move(uuid)) {}

  [[nodiscard]] std::string_view classTypeIdentifier() const override { return typeIdentifier; }
};

}  // namespace vantor::account
