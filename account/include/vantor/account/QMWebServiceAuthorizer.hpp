#pragma once

#include <optional>
#include <string>

namespace vantor::account {

/// Drives OAuth for one account: builds the authorization page's URL and
/// exchanges the authorization code that the service's redirect carries.
///
/// Thread safety: implementations accept calls from any thread.
class QMWebServiceAuthorizer {
 public:
  virtual ~QMWebServiceAuthorizer() = default;

  /// The URL of the service's authorization page for a new sign-in, built
  /// from the registered client credentials; none when the credentials or
  /// the service's endpoints are missing. Each call starts a new sign-in
  /// (fresh `state` and PKCE verifier) and abandons the previous one.
  [[nodiscard]] virtual std::optional<std::string> authorizationURL() = 0;

  /// Exchanges `code` for tokens and stores them in the account, and with
  /// `addToStore` adds the account to the account manager. Returns at once;
  /// the outcome is announced by the account-did-change notification on the
  /// main event loop, and on success the account is in the store by then.
  /// `redirectURL` is the whole redirect that carried the code, so that the
  /// implementation can check its `state` against the one it sent.
  virtual void exchangeCode(const std::string& code, bool addToStore,
                            const std::string& redirectURL) = 0;
};

}  // namespace vantor::account
