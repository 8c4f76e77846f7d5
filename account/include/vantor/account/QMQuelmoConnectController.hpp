#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include <boost/signals2/connection.hpp>
#include <boost/signals2/signal.hpp>

#include <vantor/account/QMAccount.hpp>
#include <vantor/account/QMAccountAppIdentifyingProtocol.hpp>
#include <vantor/account/QMAccountWebServiceCredentialsProviderProtocol.hpp>
#include <vantor/account/QMQuelmoConnectAccount.hpp>
#include <vantor/account/QMQuelmoConnectControllerError.hpp>
#include <vantor/account/QMQuelmoConnectControllerException.hpp>
#include <vantor/util/QMPromise.hpp>

namespace vantor::account {

namespace detail {
class LoopbackRedirect;
}

/// Signs the user of the host application in to the maker's account service
/// (OAuth authorization-code flow in the default browser), keeps the one
/// signed-in account, and publishes it, with the last sign-in error, to the
/// user interface. One instance per process: `shared()`.
///
/// Set-up: the host sets the static configuration (`setClientId`,
/// `setClientSecret`, `setRedirectURI`, optionally `setRedirectURIState` and
/// `setDeleteAccountURL`), its name and bundle identifier in
/// QMHostApplication, and the account layer (see
/// QMOAuthAccountManager::install), then uses `shared()`. When the
/// application receives a URL for which `isValidResponse` holds, it hands it
/// to `handleOAuthResponse`.
///
/// Sign-in: `login` opens the service's authorization page; the redirect
/// goes to `handleOAuthResponse`, which hands the code to the account layer;
/// with a loopback redirect URI the controller receives it itself (see
/// `setRedirectURI`);
/// the layer's account-did-change notification then sets `account` (or
/// `error`) and completes the pending `login` exactly once. A failed redirect
/// leaves the sign-in pending, so a later redirect can still complete it.
///
/// Publishing: `objectWillChange` is emitted before every assignment of
/// `account` and of `error`, also when the value does not change.
///
/// Thread safety: every member may be called from any thread. Calls are
/// carried onto the main event loop (and wait for it) so that all state
/// changes happen there; `objectWillChange`, completion handlers, promise
/// handlers attached before settlement, and the browser opener run on the
/// loop thread. The controller holds no locks of its own.
class QMQuelmoConnectController final : public QMAccountWebServiceCredentialsProviderProtocol,
                                        public QMAccountAppIdentifyingProtocol {
 public:
  using Error = QMQuelmoConnectControllerError;
  using Exception = QMQuelmoConnectControllerException;
  /// The outcome of a sign-in: the account, or why there is none.
  using LoginResult = std::variant<std::shared_ptr<QMAccount>, Error>;
  using CompletionHandler = std::function<void(const LoginResult& result)>;

  // Static configuration; set before the first use of `shared()`.
  // Each is unset until set; setting std::nullopt unsets it again.

  /// OAuth client identifier, in the form the account layer's credentials
  /// take (it is passed on untouched). Required.
  static void setClientId(std::optional<std::string> clientId);
  [[nodiscard]] static std::optional<std::string> clientId();
  /// OAuth client secret, as the client identifier. Required.
  static void setClientSecret(std::optional<std::string> clientSecret);
  [[nodiscard]] static std::optional<std::string> clientSecret();
  /// Redirect URI registered for the application. Required. It contains
  /// "qmaccounts/quelmoconnect". Either the application's own URL scheme
  /// ("com.example.app:/qmaccounts/quelmoconnect"), whose URLs the
  /// application hands to `handleOAuthResponse`; or a loopback address
  /// without a port ("http://127.0.0.1/qmaccounts/quelmoconnect" or
  /// "http://[::1]/…"), for services that accept it for native applications:
  /// each sign-in then listens on an ephemeral port of that address, and of
  /// no other interface, sends the redirect URI with that port, takes the
  /// browser's redirect itself, answers it with a short page (signed in, or
  /// what went wrong), and stops listening when the sign-in ends, fails or
  /// is replaced. Requests for other paths get 404, and one with another
  /// `state` an error page, and the listener keeps waiting.
  static void setRedirectURI(std::optional<std::string> redirectURI);
  [[nodiscard]] static std::optional<std::string> redirectURI();
  /// A fixed OAuth `state` to send; unset lets the account layer pick a
  /// fresh one per sign-in.
  static void setRedirectURIState(std::optional<std::string> redirectURIState);
  [[nodiscard]] static std::optional<std::string> redirectURIState();
  /// Template of the delete-account page, with optional "<identifier>" and
  /// "<email>" placeholders. Read by each `deleteAccount()`.
  static void setDeleteAccountURL(std::optional<std::string> deleteAccountURL);
  [[nodiscard]] static std::optional<std::string> deleteAccountURL();

  /// The controller, made on first use (thread-safe, once); never destroyed.
  /// Making it stops the process with "ERROR: clientId must be set before
  /// instantiating QMQuelmoConnectController" (then the same for
  /// clientSecret and redirectURI, in that order) when configuration is
  /// missing. It registers itself with the shared account manager and
  /// observes the account-did-change notification; it does not `load()`.
  [[nodiscard]] static QMQuelmoConnectController& shared();

  QMQuelmoConnectController(const QMQuelmoConnectController&) = delete;
  QMQuelmoConnectController& operator=(const QMQuelmoConnectController&) = delete;

  /// The signed-in account; none while signed out.
  [[nodiscard]] std::shared_ptr<QMQuelmoConnectAccount> account() const;
  /// The last sign-in error; none means no error.
  [[nodiscard]] std::optional<Error> error() const;

  /// Emitted on the loop thread before `account` or `error` is assigned.
  [[nodiscard]] boost::signals2::signal<void()>& objectWillChange() noexcept {
    return objectWillChange_;
  }

  /// Picks up the stored account: sets `account` to it, or sets `error` to
  /// `notLoggedIn` when there is none. Stops the process with
  /// "delegateOfWebServiceRequirements not set" when the shared account
  /// manager has no credentials delegate.
  void load();

  /// Starts a sign-in in the default browser; `handler` is later called on
  /// the loop thread, once, with the account or `notLoggedIn`. A sign-in
  /// already pending is replaced and its handler never called. Throws
  /// Exception with `alreadyLoggedIn` (an account is set, or the store holds
  /// any account), `accountCreationFailed` or `invalidAccount` (no
  /// authorization page). Finding the page may need the service's discovery
  /// document: a caller on another thread waits for it (the loop does not);
  /// on the loop thread the call returns at once, and `invalidAccount` found
  /// later goes to `handler`.
  void login(CompletionHandler handler);

  /// `login(handler)` as a promise, rejected with Exception: with the errors
  /// above, and with `notLoggedIn` when a later `login` replaces this one.
  [[nodiscard]] util::QMPromise<std::shared_ptr<QMAccount>> login();

  /// Fulfilled with `account` when it holds a token (whatever `error`
  /// says), otherwise as `login()`. An access token that has expired is
  /// first renewed with the refresh token; when that fails the promise is
  /// rejected with `notLoggedIn`, and when the service refused it the
  /// account has been signed out (account-did-change follows).
  [[nodiscard]] util::QMPromise<std::shared_ptr<QMAccount>> loginIfNeeded();

  /// Removes the signed-in account from the store and clears `account`;
  /// `error` stays. Does nothing while signed out.
  void logout();

  /// True when `account` is set, holds an access token that has not
  /// expired, and `error` is unset.
  [[nodiscard]] bool isLoggedIn() const;

  /// Opens the delete-account page for the signed-in account: the template
  /// with every "<identifier>" and "<email>" replaced literally (missing
  /// values become empty). Opens nothing without an account, without a
  /// template, or when the result is not an absolute URL.
  void deleteAccount();

  /// True when `url` contains "qmaccounts/quelmoconnect" anywhere
  /// (case-sensitive).
  [[nodiscard]] static bool isValidResponse(std::string_view url);

  /// Completes the pending sign-in from the service's redirect `url`: checks
  /// that its path names the service, takes the last "code" query item that
  /// has a value, and hands it to the account's authoriser, which checks the
  /// redirect's `state`; the outcome arrives later (see `login`). A redirect
  /// with another `state` (forged, or from an abandoned sign-in) or one
  /// delivered again is logged and ignored, and the sign-in stays pending. Throws
  /// Exception with `notLoggedIn` (no sign-in pending), `invalidAccount`,
  /// `internal` (unreadable URL), `accountMismatch` or
  /// `authenticationFailed` (no code, as when the user denied access).
  void handleOAuthResponse(std::string_view url);

  /// The first stored account of class QMQuelmoConnectAccount.
  [[nodiscard]] std::shared_ptr<QMQuelmoConnectAccount> firstQuelmoConnectAccount() const;

  /// The host's name and bundle identifier, read at construction from
  /// QMHostApplication.
  [[nodiscard]] std::string appName() const override { return appName_; }
  [[nodiscard]] std::string bundleIdentifier() const override { return bundleIdentifier_; }

  /// The one credentials record made from the configuration at construction;
  /// during a sign-in with a loopback redirect, its redirect URI has the
  /// listener's port.
  [[nodiscard]] std::vector<QMWebServiceClientCredentials> webServiceClientCredentials() const override;

 private:
  QMQuelmoConnectController();
  ~QMQuelmoConnectController() = default;

  // Told once, on the loop, whether the sign-in's page opened (none) or why
  // not; answers whether it took the error, or the handler should get it.
  using StartReport = std::function<bool(std::optional<Error> error)>;

  // Loop-thread halves of the public operations.
  void startLogin(CompletionHandler handler, StartReport report);
  std::optional<Error> handleOAuthResponseOnLoop(std::string_view url);
  void accountDidChange();
  void setAccount(std::shared_ptr<QMQuelmoConnectAccount> account);
  void setError(std::optional<Error> error);
  void sendWillChange();
  // The loopback redirect of a sign-in: starts listening, or stops, and
  // answers the browser's page when the sign-in settles.
  std::optional<Error> listenForLoopbackRedirect();
  void expectLoopbackRedirect(const std::shared_ptr<QMQuelmoConnectAccount>& account, const std::string& url);
  void stopLoopbackRedirect(const std::optional<LoginResult>& outcome);

  std::shared_ptr<QMQuelmoConnectAccount> account_;
  std::optional<Error> error_;
  const std::string appName_;
  const std::string bundleIdentifier_;
  std::vector<QMWebServiceClientCredentials> webServiceClientCredentials_;
  std::shared_ptr<QMQuelmoConnectAccount> preliminaryAccount_;
  CompletionHandler completionHandler_;
  std::shared_ptr<detail::LoopbackRedirect> loopback_;
  std::function<void(bool signedIn, const std::string& message)> loopbackPage_;
  std::vector<boost::signals2::scoped_connection> observers_;
  boost::signals2::signal<void()> objectWillChange_;
};

}  // namespace vantor::account
