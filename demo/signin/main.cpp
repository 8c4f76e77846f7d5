// Signs a user in with QMQuelmoConnectController and prints the account.
//
//   vantor-signin-demo
//       against a local OpenID provider, in headless Chromium, as "alice"
//   vantor-signin-demo --issuer URL --client-id ID --redirect-uri URI
//                      [--client-secret-file FILE] [--scope SCOPE]... [--service-name NAME]
//       against a real service, in the default browser; paste the URL that
//       the browser was redirected to when asked. The client secret is read
//       from FILE (its first line), or else from $VANTOR_CLIENT_SECRET; never
//       from the command line, where other users' `ps` would show it.
#include <chrono>
#include <cstdlib>
#include <fstream>
#include <filesystem>
#include <iostream>
#include <map>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include <vantor/account/QMHostApplication.hpp>
#include <vantor/account/QMOAuthAccountManager.hpp>
#include <vantor/account/QMQuelmoConnectController.hpp>
#include <vantor/account/QMWorkspace.hpp>

#include "LocalSignIn.hpp"
#include "ScratchDirectory.hpp"

namespace {

using namespace vantor::account;
using Controller = QMQuelmoConnectController;

struct Options {
  std::optional<std::string> issuer;
  std::optional<std::string> clientId;
  std::optional<std::string> clientSecretFile;
  std::optional<std::string> clientSecret;
  std::optional<std::string> redirectURI;
  std::vector<std::string> scopes;
  std::string serviceName = "Quelmo Connect";
};

std::optional<Options> parse(int argc, char** argv) {
  Options options;
  std::map<std::string, std::optional<std::string>*> texts{{"--issuer", &options.issuer},
                                                           {"--client-id", &options.clientId},
                                                           {"--client-secret-file", &options.clientSecretFile},
                                                           {"--redirect-uri", &options.redirectURI}};
  for (int i = 1; i + 1 < argc; i += 2) {
    std::string name = argv[i];
    std::string value = argv[i + 1];
    if (auto found = texts.find(name); found != texts.end()) {
      *found->second = value;
    } else if (name == "--scope") {
      options.scopes.push_back(value);
    } else if (name == "--service-name") {
      options.serviceName = value;
    } else {
      return std::nullopt;
    }
  }
  if (argc % 2 == 0) {
    return std::nullopt;
  }
  bool any = options.issuer || options.clientId || options.clientSecretFile || options.redirectURI;
  bool all = options.issuer && options.clientId && options.redirectURI;
  if (any && !all) {
    return std::nullopt;
  }
  return options;
}

// The client secret: the first line of `file`, else $VANTOR_CLIENT_SECRET.
std::optional<std::string> readClientSecret(const std::optional<std::string>& file) {
  if (file) {
    std::ifstream in(*file);
    std::string secret;
    if (!in || !std::getline(in, secret) || secret.empty()) {
      std::cerr << "Cannot read the client secret from " << *file << "\n";
      return std::nullopt;
    }
    return secret;
  }
  if (const char* secret = std::getenv("VANTOR_CLIENT_SECRET"); secret != nullptr && *secret != '\0') {
    return std::string(secret);
  }
  std::cerr << "Give the client secret with --client-secret-file FILE or in $VANTOR_CLIENT_SECRET\n";
  return std::nullopt;
}

// Waits for the sign-in; the browser side reports failure through `failed`.
std::shared_ptr<QMAccount> await(const vantor::util::QMPromise<std::shared_ptr<QMAccount>>& promise,
                                 const std::atomic<bool>& failed) {
  auto deadline = std::chrono::steady_clock::now() + std::chrono::minutes(5);
  while (!promise.result() && !failed && std::chrono::steady_clock::now() < deadline) {
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
  }
  auto result = promise.result();
  if (!result) {
    std::cerr << "The sign-in did not finish.\n";
    return nullptr;
  }
  try {
    return result->value();
  } catch (const QMQuelmoConnectControllerException& e) {
    std::cerr << localizedTitle(e.error()) << ": " << localizedDescription(e.error()) << "\n";
  }
  return nullptr;
}

void printAccount(const QMAccount& account) {
  std::cout << "Signed in to " << account.serviceName().value_or("?") << " as "
            << account.identifier().value_or("?") << " <" << account.email().value_or("no e-mail")
            << ">\n"
            << "  access token:  " << (account.token() ? "received" : "none") << "\n"
            << "  refresh token: " << (account.refreshToken() ? "received" : "none") << "\n";
}

}  // namespace

int main(int argc, char** argv) {
  auto options = parse(argc, argv);
  if (!options) {
    std::cerr << "usage: " << argv[0]
              << " [--issuer URL --client-id ID --redirect-uri URI [--client-secret-file FILE]"
                 " [--scope SCOPE]... [--service-name NAME]]\n"
                 "The client secret comes from FILE or $VANTOR_CLIENT_SECRET.\n";
    return 2;
  }
  const bool local = !options->issuer;
  if (!local) {
    options->clientSecret = readClientSecret(options->clientSecretFile);
    if (!options->clientSecret) {
      return 2;
    }
  }
  std::optional<testing::LocalOpenIdProvider> provider;
  testing::LocalOpenIdProvider::Options client;
  client.redirectURI = "com.vantor.signin-demo:/qmaccounts/quelmoconnect";
  std::optional<testing::ScratchDirectory> scratch;
  if (local) {
    try {
      // Keep the example's account away from the user's own configuration.
      scratch.emplace("vantor-signin-demo");
      ::setenv("XDG_CONFIG_HOME", scratch->path().c_str(), 1);
      provider.emplace(client);
    } catch (const std::exception& e) {
      std::cerr << e.what() << " (run `make setup`?)\n";
      return 1;
    }
    std::cout << "Local OpenID provider at " << provider->issuer() << "\n";
    options->issuer = provider->issuer();
    options->clientId = client.clientId;
    options->clientSecret = client.clientSecret;
    options->redirectURI = client.redirectURI;
    options->scopes = {"openid", "email", "offline_access"};
  }

  // What a host application does at start-up.
  QMHostApplication::setName("Vantor sign-in example");
  QMHostApplication::setBundleIdentifier("com.vantor.signin-demo");
  QMOAuthServiceConfiguration service;
  service.serviceName = options->serviceName;
  service.issuer = options->issuer;
  if (!options->scopes.empty()) {
    service.scopes = options->scopes;
  }
  service.additionalAuthorizationParameters = {{"prompt", "consent"}};
  // The local example's throw-away account stays out of the desktop's keyring.
  service.useSecretService = !local;
  QMOAuthAccountManager::install(service);
  Controller::setClientId(options->clientId);
  Controller::setClientSecret(options->clientSecret);
  Controller::setRedirectURI(options->redirectURI);
  auto& controller = Controller::shared();

  // The application receives the service's redirect and hands it over; here
  // the headless browser (local) or the user (real browser) brings it.
  std::atomic<bool> failed{false};
  std::thread browser;
  if (local) {
    QMWorkspace::setOpener([&](const std::string& url) {
      browser = std::thread([&, url] {
        auto redirect = testing::signInWithHeadlessBrowser(url, "com.vantor.signin-demo:", "alice");
        if (redirect && Controller::isValidResponse(*redirect)) {
          try {
            controller.handleOAuthResponse(*redirect);
            return;
          } catch (const QMQuelmoConnectControllerException& e) {
            std::cerr << localizedDescription(e.error()) << "\n";
          }
        }
        failed = true;
      });
      return true;
    });
  }

  controller.load();
  std::shared_ptr<QMAccount> account = controller.account();
  if (!controller.isLoggedIn()) {
    controller.logout();  // a stored account without a token is replaced
    auto promise = controller.login();
    if (!local && !promise.result()) {
      std::cout << "Sign in in your browser, then paste the address it was sent to:\n" << std::flush;
      std::string redirect;
      std::getline(std::cin, redirect);
      try {
        controller.handleOAuthResponse(redirect);
      } catch (const QMQuelmoConnectControllerException& e) {
        std::cerr << localizedDescription(e.error()) << "\n";
        failed = true;
      }
    }
    account = await(promise, failed);
  }
  if (browser.joinable()) {
    browser.join();
  }
  int status = 1;
  if (account) {
    printAccount(*account);
    status = 0;
  }
  if (local) {
    controller.logout();
    provider.reset();
  }
  return status;
}
