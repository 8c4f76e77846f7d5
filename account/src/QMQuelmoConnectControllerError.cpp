#include "vantor/account/QMQuelmoConnectControllerError.hpp"

#include "StringTable.hpp"
#include "vantor/account/QMQuelmoConnectControllerException.hpp"

namespace vantor::account {

namespace {
constexpr std::string_view tableName = "QMQuelmoConnectController";
}  // namespace

std::string_view caseName(QMQuelmoConnectControllerError error) noexcept {
  using enum QMQuelmoConnectControllerError;
  switch (error) {
    case notLoggedIn: return "notLoggedIn";
    case alreadyLoggedIn: return "alreadyLoggedIn";
    case accountCreationFailed: return "accountCreationFailed";
    case invalidAccount: return "invalidAccount";
    case accountMismatch: return "accountMismatch";
    case authenticationFailed: return "authenticationFailed";
    case internal: return "internal";
  }
  return "unknown";
}

std::string localizedTitle(QMQuelmoConnectControllerError error) {
  return localizedString(tableName, "Error." + std::string(caseName(error)) + ".title");
}

std::string localizedDescription(QMQuelmoConnectControllerError error) {
  return localizedString(tableName, "Error." + std::string(caseName(error)) + ".description");
}

QMQuelmoConnectControllerException::QMQuelmoConnectControllerException(
    QMQuelmoConnectControllerError error)
    : error_(error),
      message_("QMQuelmoConnectController.Error." + std::string(caseName(error)) + ": " +
               localizedDescription(error)) {}

}  // namespace vantor::account
