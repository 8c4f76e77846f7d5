#pragma once

#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>

#include <vantor/account/QMAccountTokens.hpp>
#include <vantor/account/QMWebServiceAuthorizer.hpp>

namespace vantor::account {

/// An account of some web service: who the user is there (identifier,
/// e-mail), the tokens that sign-in gave, and the authoriser that drives
/// OAuth for it. Concrete account classes derive from it and name their
/// class type identifier, by which stores tell them apart.
///
/// Accounts are shared (`std::shared_ptr`): the store, the controller and an
/// exchange in flight may hold the same account.
///
/// Thread safety: every member may be called from any thread; the fields are
/// guarded, and each accessor returns a copy.
class QMAccount {
 public:
  QMAccount(const QMAccount&) = delete;
  QMAccount& operator=(const QMAccount&) = delete;
  virtual ~QMAccount() = default;

  /// Reverse-DNS name of the account's class, stable across releases.
  [[nodiscard]] virtual std::string_view classTypeIdentifier() const = 0;

  /// The store's key for this account: an upper-case UUID string.
  [[nodiscard]] const std::string& uuid() const noexcept { return uuid_; }

  /// The service's display name, such as "Quelmo Connect".
  [[nodiscard]] std::optional<std::string> serviceName() const;
  [[nodiscard]] std::shared_ptr<QMWebServiceAuthorizer> webServiceAuthorizer() const;
  /// The user's identifier at the service (OpenID Connect `sub`).
  [[nodiscard]] std::optional<std::string> identifier() const;
  [[nodiscard]] std::optional<std::string> email() const;
  /// The access token; none before a successful sign-in.
  [[nodiscard]] std::optional<std::string> token() const;
  [[nodiscard]] std::optional<std::string> refreshToken() const;
  [[nodiscard]] QMAccountTokens tokens() const;

  void setServiceName(std::optional<std::string> serviceName);
  void setWebServiceAuthorizer(std::shared_ptr<QMWebServiceAuthorizer> authorizer);
  void setIdentity(std::optional<std::string> identifier, std::optional<std::string> email);
  void setTokens(QMAccountTokens tokens);

 protected:
  explicit QMAccount(std::string uuid);

 private:
  const std::string uuid_;
  mutable std::mutex mutex_;
  std::optional<std::string> serviceName_;
  std::shared_ptr<QMWebServiceAuthorizer> authorizer_;
  std::optional<std::string> identifier_;
  std::optional<std::string> email_;
  QMAccountTokens tokens_;
};

}  // namespace vantor::account
