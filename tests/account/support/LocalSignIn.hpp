#pragma once

#include <memory>
#include <optional>
#include <string>

#include "ChildProcess.hpp"

namespace vantor::account::testing {

// A local OpenID provider (e2e/provider.mjs) on 127.0.0.1 with one native
// client. Stops when the object goes.
class LocalOpenIdProvider {
 public:
  struct Options {
    std::string clientId = "vantor-signin-test";
    std::string clientSecret = "local-test-secret";
    std::string redirectURI = "com.vantor.signin-test:/qmaccounts/quelmoconnect";
  };

  // Waits until it listens; throws std::runtime_error when it does not.
  explicit LocalOpenIdProvider(Options options);

  [[nodiscard]] const std::string& issuer() const noexcept { return issuer_; }
  [[nodiscard]] const Options& options() const noexcept { return options_; }

  void stop() { process_->stop(); }

 private:
  Options options_;
  std::unique_ptr<ChildProcess> process_;
  std::string issuer_;
};

// Opens `authorizationURL` in headless Chromium (e2e/browser.mjs), signs in
// as `login` on the provider's development pages, allows access, and returns
// the URL the provider redirected to, which starts with `redirectPrefix`.
// None when the browser run failed.
std::optional<std::string> signInWithHeadlessBrowser(const std::string& authorizationURL,
                                                     const std::string& redirectPrefix,
                                                     const std::string& login);

// How the browser brings the redirect back in `fillInSignInPages`.
enum class RedirectHandOff {
  loopback,  // it follows the redirect to the application's loopback listener
  scheme,    // it runs `xdg-open URL` with the custom-scheme redirect
};

// Opens `authorizationURL` in headless Chromium and signs in as `login` on
// the provider's development pages, leaving the redirect to the browser and
// the desktop: the script never reads or forwards it. Returns what the
// browser saw last: for loopback "PAGE <outcome> <heading>" from the
// listener's page (outcome "done", "failed" or "refused"), for a scheme
// "XDG-OPEN <exit status>". None when the browser run failed.
std::optional<std::string> fillInSignInPages(const std::string& authorizationURL, const std::string& login,
                                             RedirectHandOff handOff, const std::string& redirectPrefix = {});

// Sets the application up as the sign-in tests' host does: an account layer
// for the provider at `issuer` (asking for e-mail and a refresh token), and
// the controller configured for `options`' client and registered with it.
// Tokens stay in the accounts file, never in the desktop's keyring.
void configureTestApplication(const std::string& issuer, const LocalOpenIdProvider::Options& options);

}  // namespace vantor::account::testing
