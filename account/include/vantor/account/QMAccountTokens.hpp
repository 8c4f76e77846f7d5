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

  /// True when the service said when the access token runs out and that
  /// time has come.
  [[nodiscard]] bool accessTokenExpired(
      std::chrono::system_clock::time_point now = std::chrono::system_clock::now()) const {
    return expiresAt && *expiresAt <= now;
  }

  friend bool operator==(const QMAccountTokens&, const QMAccountTokens&) = default;
};

}  // namespace vantor::account
