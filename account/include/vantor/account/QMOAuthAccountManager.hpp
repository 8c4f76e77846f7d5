#pragma once

#include <filesystem>
#include <memory>
#include <optional>
#include <vector>

#include <boost/uuid/uuid.hpp>

#include <vantor/account/QMAccountManager.hpp>
#include <vantor/account/QMOAuthServiceConfiguration.hpp>
#include <vantor/account/QMQuelmoConnectAccount.hpp>

namespace vantor::account {

/// The account manager that really signs people in: accounts of the maker's
/// service are signed in to a configured OAuth 2.0 / OpenID Connect service
/// with the authorization-code flow, `state` and PKCE (S256), and kept in a
/// file that survives restarts.
///
/// The store is the file "accounts.json" in the folder named after the host's
/// bundle identifier (from the app-identifying delegate, else
/// QMHostApplication; the application name when both are empty) inside the
/// user's configuration directory: `$XDG_CONFIG_HOME`, else "~/.config", on
/// Linux; "~/Library/Application Support" on macOS. The folder is made with
/// mode 0700 and the file written with mode 0600, by atomic replacement. A
/// file that cannot be read as a store is renamed to
/// "accounts.json.corrupt-<time>", logged, and taken as empty. The location is
/// fixed on first use of the store. When the session bus offers a Secret
/// Service with an unlocked default keyring (and the configuration allows
/// it), the tokens are kept there, one item per account, and the file keeps
/// only the account's identity.
///
/// An expired access token is renewed with the refresh token through the
/// account's authoriser (`refreshTokens`); a refused refresh signs out.
///
/// Tokens, codes and client secrets are never logged.
///
/// Thread safety: every member may be called from any thread. Code
/// exchanges run on the main event loop; see QMWebServiceAuthorizer.
class QMOAuthAccountManager : public QMAccountManager,
                              public std::enable_shared_from_this<QMOAuthAccountManager> {
 public:
  /// A manager for `configuration`.
  [[nodiscard]] static std::shared_ptr<QMOAuthAccountManager> make(
      QMOAuthServiceConfiguration configuration);

  /// Makes a manager for `configuration` and installs it as the shared
  /// account manager, with a factory over it as the shared factory. Call it
  /// at start-up, before the sign-in controller is made.
  static std::shared_ptr<QMOAuthAccountManager> install(QMOAuthServiceConfiguration configuration);

  ~QMOAuthAccountManager() override;

  [[nodiscard]] const QMOAuthServiceConfiguration& configuration() const noexcept;

  /// The store file; fixes the location if it was not yet fixed.
  [[nodiscard]] std::filesystem::path storeFile() const;

  /// A new account of the service, with an authoriser bound to this manager;
  /// not stored until a code exchange succeeds.
  [[nodiscard]] std::shared_ptr<QMQuelmoConnectAccount> createAccount(
      std::optional<boost::uuids::uuid> identifier);

  [[nodiscard]] std::vector<std::shared_ptr<QMAccount>> accounts() const override;
  void addAccount(std::shared_ptr<QMAccount> account) override;
  /// Also revokes the account's refresh token at the service's revocation
  /// endpoint, when discovery advertises one, without waiting for it.
  void removeAccount(const std::shared_ptr<QMAccount>& account) override;

 private:
  struct Impl;

  explicit QMOAuthAccountManager(QMOAuthServiceConfiguration configuration);
  // Both need the store's mutex held.
  void loadIfNeeded() const;
  void persist() const;
  void revokeInBackground(std::string refreshToken) const;

  std::unique_ptr<Impl> impl_;
};

}  // namespace vantor::account
