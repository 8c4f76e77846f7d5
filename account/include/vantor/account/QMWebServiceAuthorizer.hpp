#pragma once

#include <functional>
#include <optional>
#include <string>

namespace vantor::account {

/// Drives OAuth for one account: builds the authorization page's URL,
/// exchanges the authorization code that the service's redirect carries, and
/// renews the account's access token.
///
/// Thread safety: implementations accept calls from any thread. Completions
/// run on the main event loop, or at once on the calling thread when no
/// request was needed. None of the operations blocks.
class QMWebServiceAuthorizer {
 public:
  using URLCompletion = std::function<void(std::optional<std::string> url)>;
  using RefreshCompletion = std::function<void(bool refreshed)>;

  virtual ~QMWebServiceAuthorizer() = default;

  /// Calls `completion` once with the URL of the service's authorization
  /// page for a new sign-in, built from the registered client credentials;
  /// none when the credentials or the service's endpoints are missing. Each
  /// call starts a new sign-in (fresh `state` and PKCE verifier) and
  /// abandons the previous one.
  virtual void authorizationURL(URLCompletion completion) = 0;

  /// Exchanges `code` for tokens and stores them in the account, and with
  /// `addToStore` adds the account to the account manager. Returns at once;
  /// the outcome is announced by the account-did-change notification on the
  /// main event loop, and on success the account is in the store by then.
  /// `redirectURL` is the whole redirect that carried the code. A redirect
  /// whose `state` is not the pending sign-in's, or that repeats one whose
  /// exchange has started, is logged and ignored: no notification follows,
  /// and the pending sign-in stays as it was.
  virtual void exchangeCode(const std::string& code, bool addToStore,
                            const std::string& redirectURL) = 0;

  /// Renews the account's access token with its refresh token and calls
  /// `completion` with true once the account holds a fresh one. When the
  /// service refuses (or there is no refresh token), the account is signed
  /// out: removed from the store, followed by the account-did-change
  /// notification, and `completion` gets false. Other failures (the service
  /// cannot be reached) keep the account and give false. Concurrent calls
  /// share one request.
  virtual void refreshTokens(RefreshCompletion completion) = 0;
};

}  // namespace vantor::account
