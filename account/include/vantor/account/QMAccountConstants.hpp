#pragma once

#include <string_view>

namespace vantor::account::QMAccountConstants {

/// Names used with the maker's account service.
namespace QuelmoConnect {

/// Posted on the default notification centre, on the main event loop, after
/// every completed code exchange, whether it succeeded or not. Removing an
/// account posts nothing.
inline constexpr std::string_view accountDidChangeNotificationString =
    "com.quelmo.accounts.QuelmoConnect.accountDidChange";

}  // namespace QuelmoConnect

}  // namespace vantor::account::QMAccountConstants
