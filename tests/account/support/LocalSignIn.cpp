#include "LocalSignIn.hpp"

#include <stdexcept>

#include <vantor/account/QMHostApplication.hpp>
#include <vantor/account/QMOAuthAccountManager.hpp>
#include <vantor/account/QMQuelmoConnectController.hpp>

namespace vantor::account::testing {

// Both scripts live beside their node_modules; the build tells where.
static std::string script(const char* name) { return std::string(VANTOR_ACCOUNT_E2E_DIR) + "/" + name; }

LocalOpenIdProvider::LocalOpenIdProvider(Options options) : options_(std::move(options)) {
  process_ = std::make_unique<ChildProcess>(
      std::vector<std::string>{"node", script("provider.mjs"), "--client-id", options_.clientId, "--client-secret",
                               options_.clientSecret, "--redirect-uri", options_.redirectURI});
  auto line = process_->readLine(std::chrono::seconds(30));
  constexpr std::string_view marker = "ISSUER ";
  if (!line || line->rfind(marker, 0) != 0) {
    throw std::runtime_error("the local OpenID provider did not start");
  }
  issuer_ = line->substr(marker.size());
}

std::optional<std::string> signInWithHeadlessBrowser(const std::string& authorizationURL,
                                                     const std::string& redirectPrefix,
                                                     const std::string& login) {
  auto run = runToCompletion({"node", script("browser.mjs"), "--url", authorizationURL, "--redirect-prefix",
                              redirectPrefix, "--login", login},
                             std::chrono::seconds(90));
  constexpr std::string_view marker = "REDIRECT ";
  if (!run || run->status != 0 || run->output.rfind(marker, 0) != 0) {
    return std::nullopt;
  }
  auto end = run->output.find('\n');
  return run->output.substr(marker.size(), end - marker.size());
}

std::optional<std::string> fillInSignInPages(const std::string& authorizationURL, const std::string& login,
                                             RedirectHandOff handOff, const std::string& redirectPrefix) {
  std::vector<std::string> argv{"node", script("browser.mjs"), "--url", authorizationURL, "--login", login,
                                "--hand-off", handOff == RedirectHandOff::loopback ? "loopback" : "scheme"};
  if (!redirectPrefix.empty()) {
    argv.insert(argv.end(), {"--redirect-prefix", redirectPrefix});
  }
  auto run = runToCompletion(argv, std::chrono::seconds(90));
  if (!run || run->status != 0) {
    return std::nullopt;
  }
  return run->output.substr(0, run->output.find('\n'));
}

void configureTestApplication(const std::string& issuer, const LocalOpenIdProvider::Options& options) {
  QMHostApplication::setName("Sign-in test");
  QMHostApplication::setBundleIdentifier("com.vantor.signin-test");
  QMOAuthServiceConfiguration service;
  service.issuer = issuer;
  service.scopes = {"openid", "email", "offline_access"};
  service.additionalAuthorizationParameters = {{"prompt", "consent"}};
  service.requestTimeout = std::chrono::seconds(10);
  // Never the desktop's own keyring: the tokens stay in the scratch folder.
  service.useSecretService = false;
  auto manager = QMOAuthAccountManager::install(std::move(service));
  QMQuelmoConnectController::setClientId(options.clientId);
  QMQuelmoConnectController::setClientSecret(options.clientSecret);
  QMQuelmoConnectController::setRedirectURI(options.redirectURI);
  QMQuelmoConnectController::setDeleteAccountURL(
      "https://accounts.example.test/delete?user=<identifier>&email=<email>");
  auto& controller = QMQuelmoConnectController::shared();
  manager->setDelegateOfWebServiceRequirements(&controller);
  manager->setAppIdentifyingDelegate(&controller);
}

}  // namespace vantor::account::testing
