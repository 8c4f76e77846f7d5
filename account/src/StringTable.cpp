#include "StringTable.hpp"

#include <array>
#include <utility>

namespace vantor::account {

namespace {

struct Entry {
  std::string_view table;
  std::string_view key;
  std::string_view text;
};

// English texts. Titles are short enough for an alert's heading; the
// descriptions say what happened and what the user can do.
constexpr std::array entries{
    Entry{"QMQuelmoConnectController", "Error.notLoggedIn.title", "Not Signed In"},
    Entry{"QMQuelmoConnectController", "Error.notLoggedIn.description",
          "You are not signed in to your Quelmo account. Sign in to continue."},
    Entry{"QMQuelmoConnectController", "Error.alreadyLoggedIn.title", "Already Signed In"},
    Entry{"QMQuelmoConnectController", "Error.alreadyLoggedIn.description",
          "You are already signed in to a Quelmo account. Sign out first to use another one."},
    Entry{"QMQuelmoConnectController", "Error.accountCreationFailed.title",
          "Could Not Create Account"},
    Entry{"QMQuelmoConnectController", "Error.accountCreationFailed.description",
          "The application could not prepare a Quelmo account for signing in. Please try again."},
    Entry{"QMQuelmoConnectController", "Error.invalidAccount.title", "Sign-In Unavailable"},
    Entry{"QMQuelmoConnectController", "Error.invalidAccount.description",
          "The Quelmo sign-in page could not be reached or the account is incomplete. Check your "
          "connection and try again."},
    Entry{"QMQuelmoConnectController", "Error.accountMismatch.title", "Wrong Service"},
    Entry{"QMQuelmoConnectController", "Error.accountMismatch.description",
          "The sign-in response came from a different service than the one you are signing in "
          "to."},
    Entry{"QMQuelmoConnectController", "Error.authenticationFailed.title", "Sign-In Failed"},
    Entry{"QMQuelmoConnectController", "Error.authenticationFailed.description",
          "Quelmo did not confirm your sign-in. If you cancelled or denied access, sign in again "
          "and allow access."},
    Entry{"QMQuelmoConnectController", "Error.internal.title", "Unexpected Error"},
    Entry{"QMQuelmoConnectController", "Error.internal.description",
          "The sign-in response could not be read. Please try again."},
};

}  // namespace

std::string localizedString(std::string_view table, std::string_view key) {
  for (const auto& entry : entries) {
    if (entry.table == table && entry.key == key) {
      return std::string(entry.text);
    }
  }
  return std::string(key);
}

}  // namespace vantor::account
