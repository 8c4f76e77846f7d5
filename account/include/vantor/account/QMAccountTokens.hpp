#pragma once

#include <chrono>
#include <optional>
#include <string>

namespace vantor::account {

/// The tokens that a code exchange yields for an account.
struct QMAccountTokens {
  std::optional<std::string> accessToken;
  std::optional<std::string> refreshToken;
  std::optional<std::string> idToken;
  /// Usually "Bearer".
  std::optional<std::string> tokenType;
  /// When the access token runs out, if the service said.
  std::optional<std::chrono::system_clock::time_point> expiresAt;

  friend bool operator==(const QMAccountTokens&, const QMAccountTokens&) = default;
};

}  // namespace vantor::account
