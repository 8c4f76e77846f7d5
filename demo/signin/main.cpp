// Signs a user in with QMQuelmoConnectController and prints the account.
//
//   vantor-signin-demo [--redirect loopback|scheme]
//       against a local OpenID provider, in headless Chromium, as "alice".
//       The browser only fills in the provider's pages; the redirect comes
//       back by itself: to a loopback listener (the default), or through the
//       example's URL scheme, registered in scratch XDG folders for the run,
//       `xdg-open` and a second copy of this program, which hands it over.
//   vantor-signin-demo --issuer URL --client-id ID --redirect-uri URI
//                      [--client-secret-file FILE] [--scope SCOPE]... [--service-name NAME]
//       against a real service, in the default browser. A loopback redirect
//       URI (http://127.0.0.1/qmaccounts/quelmoconnect) or one of a custom
//       scheme (com.vantor.signin-demo:/qmaccounts/quelmoconnect, registered
//       for the run) comes back by itself; with any other, paste the URL that
//       the browser was redirected to when asked. The client secret is read
//       from FILE (its first line), or else from $VANTOR_CLIENT_SECRET; never
//       from the command line, where other users' `ps` would show it.
//   vantor-signin-demo --hand-off URL
//       what the desktop runs for a URL of the example's scheme: hands it to
//       the running copy.
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
#include <vantor/account/QMSingleInstance.hpp>
#include <vantor/account/QMURLSchemeRegistration.hpp>
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
  std::string redirect = "loopback";  // the local provider's: loopback or scheme
  std::optional<std::string> handOff;
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
    } else if (name == "--redirect" && (value == "loopback" || value == "scheme")) {
      options.redirect = value;
    } else if (name == "--hand-off") {
      options.handOff = value;
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

// The example's URL scheme registered for the run: in scratch XDG folders
// for the local run, which go again, or in the user's own. Undone at the end.
class ScratchSchemeRegistration {
 public:
  explicit ScratchSchemeRegistration(const std::string& scheme, bool scratch) : scheme_(scheme) {
    if (scratch) {
      folders_.emplace("vantor-signin-demo-xdg");
      for (const char* variable : {"XDG_DATA_HOME", "XDG_CONFIG_HOME"}) {
        const auto folder = folders_->path() / variable;
        std::filesystem::create_directories(folder);
        ::setenv(variable, folder.c_str(), 1);
      }
    }
    const auto self = std::filesystem::read_symlink("/proc/self/exe").string();
    const auto files = QMURLSchemeRegistration::registerHandler(scheme_, {self, "--hand-off"});
    std::cout << "Registered " << self << " as the handler of " << scheme_ << ":\n  "
              << files.desktopEntry.string() << " (Exec=" << self << " --hand-off %u)\n  "
              << files.mimeApps.string() << " (x-scheme-handler/" << scheme_ << "="
              << files.desktopEntry.filename().string() << ")\n";
  }
  ~ScratchSchemeRegistration() {
    try {
      QMURLSchemeRegistration::unregisterHandler(scheme_);
    } catch (const std::exception& e) {
      std::cerr << e.what() << "\n";
    }
  }
  ScratchSchemeRegistration(const ScratchSchemeRegistration&) = delete;
  ScratchSchemeRegistration& operator=(const ScratchSchemeRegistration&) = delete;

 private:
  std::string scheme_;
  std::optional<testing::ScratchDirectory> folders_;
};

}  // namespace

int main(int argc, char** argv) {
  auto options = parse(argc, argv);
  if (!options) {
    std::cerr << "usage: " << argv[0]
              << " [--redirect loopback|scheme]\n"
                 "       "
              << argv[0]
              << " --issuer URL --client-id ID --redirect-uri URI [--client-secret-file FILE]"
                 " [--scope SCOPE]... [--service-name NAME]\n"
                 "The client secret comes from FILE or $VANTOR_CLIENT_SECRET.\n";
    return 2;
  }
  QMHostApplication::setName("Vantor sign-in example");
  QMHostApplication::setBundleIdentifier("com.vantor.signin-demo");
  if (options->handOff) {
    // Started by the desktop for a URL of the scheme: the running copy takes it.
    if (QMSingleInstance::handOff(*options->handOff)) {
      return 0;
    }
    std::cerr << "No copy of the sign-in example is running, so no sign-in is waiting for " << *options->handOff
              << "\n";
    return 1;
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
  client.redirectURI = options->redirect == "scheme" ? "com.vantor.signin-demo:/qmaccounts/quelmoconnect"
                                                     : "http://127.0.0.1/qmaccounts/quelmoconnect";
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
  std::cout << "Redirect URI: " << *options->redirectURI << "\n";

  // What a host application does at start-up.
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

  // How the redirect comes back: a loopback redirect to the controller's own
  // listener; one of the application's scheme through the desktop, which
  // starts a second copy, which hands it to this one; anything else pasted.
  const auto scheme = QMURLSchemeRegistration::schemeOf(*options->redirectURI);
  const bool byScheme = scheme && *scheme != "http" && *scheme != "https";
  const bool byLoopback = options->redirectURI->rfind("http://127.0.0.1/", 0) == 0 ||
                          options->redirectURI->rfind("http://[::1]/", 0) == 0;
  std::atomic<bool> failed{false};
  std::optional<ScratchSchemeRegistration> registration;
  std::optional<QMSingleInstance> instance;
  if (byScheme) {
    try {
      registration.emplace(*scheme, local);
      instance.emplace([&](const std::string& url) {
        try {
          controller.handleOAuthResponse(url);
        } catch (const QMQuelmoConnectControllerException& e) {
          std::cerr << localizedDescription(e.error()) << "\n";
        }
      });
    } catch (const std::exception& e) {
      std::cerr << "Cannot take the redirect through the desktop: " << e.what() << "\n";
      return 1;
    }
    // Debian's xdg-open starts a scheme's handler only when a display is
    // named; the hand-off needs no display server.
    if (std::getenv("DISPLAY") == nullptr && std::getenv("WAYLAND_DISPLAY") == nullptr) {
      ::setenv("DISPLAY", ":0", 1);
    }
  }
  std::thread browser;
  if (local) {
    // Headless Chromium only fills in the provider's pages: for a scheme it
    // runs `xdg-open` with the redirect, as a desktop browser does.
    QMWorkspace::setOpener([&](const std::string& url) {
      browser = std::thread([&, url] {
        auto seen = testing::fillInSignInPages(
            url, "alice", byScheme ? testing::RedirectHandOff::scheme : testing::RedirectHandOff::loopback,
            byScheme ? *scheme + ":" : std::string());
        if (!seen) {
          failed = true;
        } else if (seen->rfind("PAGE ", 0) == 0) {
          std::cout << "The browser shows: " << seen->substr(seen->find(' ', 5) + 1) << "\n";
        }
      });
      return true;
    });
  }

  controller.load();
  std::shared_ptr<QMAccount> account = controller.account();
  if (!controller.isLoggedIn()) {
    controller.logout();  // a stored account without a token is replaced
    auto promise = controller.login();
    if (!local && !byScheme && !byLoopback && !promise.result()) {
      std::cout << "Sign in in your browser, then paste the address it was sent to:\n" << std::flush;
      std::string redirect;
      std::getline(std::cin, redirect);
      try {
        controller.handleOAuthResponse(redirect);
      } catch (const QMQuelmoConnectControllerException& e) {
        std::cerr << localizedDescription(e.error()) << "\n";
        failed = true;
      }
    } else if (!local) {
      std::cout << "Sign in in your browser; the redirect comes back here by itself.\n" << std::flush;
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
