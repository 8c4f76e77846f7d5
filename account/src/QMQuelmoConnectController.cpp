#include "vantor/account/QMQuelmoConnectController.hpp"

#include <boost/url/parse.hpp>
#include <cctype>
#include <future>
#include <mutex>
#include <typeindex>

#include "LoopbackRedirect.hpp"
#include "vantor/account/QMAccountConstants.hpp"
#include "vantor/account/QMAccountFactory.hpp"
#include "vantor/account/QMAccountManager.hpp"
#include "vantor/account/QMHostApplication.hpp"
#include "vantor/account/QMNotificationCenter.hpp"
#include "vantor/account/QMWorkspace.hpp"
#include "vantor/platform/EventLoop.hpp"
#include "vantor/platform/Fatal.hpp"
#include "vantor/util/LogAccounts.hpp"
#include "vantor/util/QMExternallyResolvablePromise.hpp"

namespace vantor::account {

using platform::EventLoop;

namespace {

struct Configuration {
  std::mutex mutex;
  std::optional<std::string> clientId;
  std::optional<std::string> clientSecret;
  std::optional<std::string> redirectURI;
  std::optional<std::string> redirectURIState;
  std::optional<std::string> deleteAccountURL;
};

Configuration& configuration() {
  static Configuration* const shared = new Configuration();
  return *shared;
}

std::optional<std::string> read(std::optional<std::string> Configuration::*field) {
  auto& config = configuration();
  std::lock_guard lock(config.mutex);
  return config.*field;
}

void write(std::optional<std::string> Configuration::*field, std::optional<std::string> value) {
  auto& config = configuration();
  std::lock_guard lock(config.mutex);
  config.*field = std::move(value);
}

std::string replaceAll(std::string text, std::string_view placeholder, std::string_view value) {
  for (auto at = text.find(placeholder); at != std::string::npos;
       at = text.find(placeholder, at + value.size())) {
    text.replace(at, placeholder.size(), value);
  }
  return text;
}

// The form in which the service's name appears in its redirect paths.
std::string serviceKey(std::string_view serviceName) {
  std::string key;
  for (char c : serviceName) {
    if (!std::isspace(static_cast<unsigned char>(c))) {
      key += static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    }
  }
  return key;
}

std::exception_ptr exceptionFor(QMQuelmoConnectControllerError error) {
  return std::make_exception_ptr(QMQuelmoConnectControllerException(error));
}

}  // namespace

void QMQuelmoConnectController::setClientId(std::optional<std::string> value) {
  write(&Configuration::clientId, std::move(value));
}
std::optional<std::string> QMQuelmoConnectController::clientId() {
  return read(&Configuration::clientId);
}
void QMQuelmoConnectController::setClientSecret(std::optional<std::string> value) {
  write(&Configuration::clientSecret, std::move(value));
}
std::optional<std::string> QMQuelmoConnectController::clientSecret() {
  return read(&Configuration::clientSecret);
}
void QMQuelmoConnectController::setRedirectURI(std::optional<std::string> value) {
  write(&Configuration::redirectURI, std::move(value));
}
std::optional<std::string> QMQuelmoConnectController::redirectURI() {
  return read(&Configuration::redirectURI);
}
void QMQuelmoConnectController::setRedirectURIState(std::optional<std::string> value) {
  write(&Configuration::redirectURIState, std::move(value));
}
std::optional<std::string> QMQuelmoConnectController::redirectURIState() {
  return read(&Configuration::redirectURIState);
}
void QMQuelmoConnectController::setDeleteAccountURL(std::optional<std::string> value) {
  write(&Configuration::deleteAccountURL, std::move(value));
}
std::optional<std::string> QMQuelmoConnectController::deleteAccountURL() {
  return read(&Configuration::deleteAccountURL);
}

QMQuelmoConnectController& QMQuelmoConnectController::shared() {
  // Never destroyed: notifications and loop work may still reach it while the
  // process exits.
  static QMQuelmoConnectController* const instance = new QMQuelmoConnectController();
  return *instance;
}

QMQuelmoConnectController::QMQuelmoConnectController()
    : appName_(QMHostApplication::name()), bundleIdentifier_(QMHostApplication::bundleIdentifier()) {
  auto id = clientId();
  if (!id) {
    platform::fatalError("ERROR: clientId must be set before instantiating QMQuelmoConnectController");
  }
  auto secret = clientSecret();
  if (!secret) {
    platform::fatalError(
        "ERROR: clientSecret must be set before instantiating QMQuelmoConnectController");
  }
  auto redirect = redirectURI();
  if (!redirect) {
    platform::fatalError(
        "ERROR: redirectURI must be set before instantiating QMQuelmoConnectController");
  }
  webServiceClientCredentials_.emplace_back(
      std::move(*id), std::move(*secret), std::move(*redirect), redirectURIState(),
      QMWebServiceProvider::quelmoConnect, std::string(QMQuelmoConnectAccount::typeIdentifier),
      std::type_index(typeid(QMQuelmoConnectAccount)));

  auto manager = QMAccountManager::shared();
  manager->setDelegateOfWebServiceRequirements(this);
  manager->setAppIdentifyingDelegate(this);

  observers_.emplace_back(QMNotificationCenter::defaultCenter().addObserver(
      std::string(QMAccountConstants::QuelmoConnect::accountDidChangeNotificationString),
      [this] { accountDidChange(); }));
}

std::vector<QMWebServiceClientCredentials> QMQuelmoConnectController::webServiceClientCredentials() const {
  return EventLoop::main().sync([this] { return webServiceClientCredentials_; });
}

std::shared_ptr<QMQuelmoConnectAccount> QMQuelmoConnectController::account() const {
  return EventLoop::main().sync([this] { return account_; });
}

std::optional<QMQuelmoConnectController::Error> QMQuelmoConnectController::error() const {
  return EventLoop::main().sync([this] { return error_; });
}

void QMQuelmoConnectController::sendWillChange() {
  // State only changes on the loop, so this normally emits at once; the
  // post keeps the signal on the loop should that ever change.
  EventLoop::main().dispatch([this] { objectWillChange_(); });
}

void QMQuelmoConnectController::setAccount(std::shared_ptr<QMQuelmoConnectAccount> account) {
  sendWillChange();
  account_ = std::move(account);
}

void QMQuelmoConnectController::setError(std::optional<Error> error) {
  sendWillChange();
  error_ = error;
}

std::shared_ptr<QMQuelmoConnectAccount> QMQuelmoConnectController::firstQuelmoConnectAccount()
    const {
  for (auto& stored : QMAccountManager::shared()->accounts()) {
    if (auto account = std::dynamic_pointer_cast<QMQuelmoConnectAccount>(stored)) {
      return account;
    }
  }
  return nullptr;
}

void QMQuelmoConnectController::load() {
  EventLoop::main().sync([this] {
    if (QMAccountManager::shared()->delegateOfWebServiceRequirements() == nullptr) {
      platform::fatalError("delegateOfWebServiceRequirements not set");
    }
    if (auto stored = firstQuelmoConnectAccount()) {
      setAccount(std::move(stored));
    } else {
      setError(Error::notLoggedIn);
    }
  });
}

void QMQuelmoConnectController::login(CompletionHandler handler) {
  // Errors come back as values and are thrown here, on the caller's thread,
  // so no exception object is shared between threads. A caller on another
  // thread waits until the page opens or fails to; the loop itself is never
  // held up (finding the page may take a network request).
  struct Start {
    std::promise<std::optional<Error>> outcome;
    bool callerWaits = true;  // touched on the loop thread only
  };
  auto start = std::make_shared<Start>();
  auto outcome = start->outcome.get_future();
  const bool onLoop = EventLoop::main().isCurrentThread();
  EventLoop::main().sync([this, &handler, start, onLoop] {
    startLogin(std::move(handler), [start](std::optional<Error> error) {
      if (!start->callerWaits) {
        return false;
      }
      start->callerWaits = false;
      start->outcome.set_value(error);
      return true;
    });
    if (onLoop && start->callerWaits) {
      // The page is still being looked for; a failure now goes to the
      // handler instead.
      start->callerWaits = false;
      start->outcome.set_value(std::nullopt);
    }
  });
  if (auto error = outcome.get()) {
    throw Exception(*error);
  }
}

void QMQuelmoConnectController::startLogin(CompletionHandler handler, StartReport report) {
  if (account_ || !QMAccountManager::shared()->accounts().empty()) {
    report(Error::alreadyLoggedIn);
    return;
  }
  auto created = QMAccountFactory::shared()->createAccount(std::nullopt, 0,
                                                           QMWebServiceProvider::quelmoConnect);
  auto account = std::dynamic_pointer_cast<QMQuelmoConnectAccount>(created);
  if (!account) {
    report(Error::accountCreationFailed);
    return;
  }
  auto authorizer = account->webServiceAuthorizer();
  if (!authorizer) {
    report(Error::invalidAccount);
    return;
  }
  if (auto error = listenForLoopbackRedirect()) {
    report(*error);
    return;
  }
  // Replaces an earlier sign-in; its handler is dropped without a call.
  preliminaryAccount_ = account;
  completionHandler_ = std::move(handler);
  authorizer->authorizationURL([this, account, report = std::move(report)](std::optional<std::string> url) {
    EventLoop::main().dispatch([this, account, report, url = std::move(url)] {
      if (preliminaryAccount_ != account) {
        report(std::nullopt);  // replaced, or signed out, while the page was looked for
        return;
      }
      if (!url) {
        preliminaryAccount_.reset();
        stopLoopbackRedirect(LoginResult(Error::invalidAccount));
        auto handler = std::exchange(completionHandler_, nullptr);
        // Reported before the handler is dropped, so that a promise learns
        // this error and not the one for a dropped sign-in.
        if (!report(Error::invalidAccount) && handler) {
          handler(LoginResult(Error::invalidAccount));
        }
        return;
      }
      report(std::nullopt);
      if (loopback_) {
        expectLoopbackRedirect(account, *url);
      }
      if (!QMWorkspace::open(*url)) {
        util::logAccounts().error("Could not open the sign-in page in the browser");
      }
    });
  });
}

namespace {

// Settles a login() promise whose sign-in was replaced: dropping the last
// copy of its handler without a call rejects it with `notLoggedIn`, as
// documented, rather than leaving it to break.
class RejectWhenDropped {
 public:
  explicit RejectWhenDropped(std::shared_ptr<util::QMExternallyResolvablePromise<std::shared_ptr<QMAccount>>> pending)
      : pending_(std::move(pending)) {}
  RejectWhenDropped(const RejectWhenDropped&) = delete;
  RejectWhenDropped& operator=(const RejectWhenDropped&) = delete;
  ~RejectWhenDropped() { pending_->reject(exceptionFor(QMQuelmoConnectControllerError::notLoggedIn)); }

 private:
  std::shared_ptr<util::QMExternallyResolvablePromise<std::shared_ptr<QMAccount>>> pending_;
};

}  // namespace

util::QMPromise<std::shared_ptr<QMAccount>> QMQuelmoConnectController::login() {
  auto pending = std::make_shared<util::QMExternallyResolvablePromise<std::shared_ptr<QMAccount>>>();
  auto guard = std::make_shared<RejectWhenDropped>(pending);
  auto handler = [pending, guard](const LoginResult& result) {
    if (const auto* account = std::get_if<std::shared_ptr<QMAccount>>(&result)) {
      pending->fulfill(*account);
    } else {
      pending->reject(exceptionFor(std::get<Error>(result)));
    }
  };
  guard.reset();
  // Only the first outcome counts, so the guard's rejection on dropping the
  // handler changes nothing once the promise is settled.
  EventLoop::main().sync([this, &handler, pending] {
    startLogin(std::move(handler), [pending](std::optional<Error> error) {
      if (error) {
        pending->reject(exceptionFor(*error));
      }
      return true;
    });
  });
  return pending->promise();
}

util::QMPromise<std::shared_ptr<QMAccount>> QMQuelmoConnectController::loginIfNeeded() {
  auto current = EventLoop::main().sync([this]() -> std::shared_ptr<QMAccount> {
    return account_ && account_->token() ? account_ : nullptr;
  });
  if (!current) {
    return login();
  }
  auto ready = std::make_shared<util::QMExternallyResolvablePromise<std::shared_ptr<QMAccount>>>();
  auto authorizer = current->webServiceAuthorizer();
  if (!current->tokens().accessTokenExpired() || !authorizer) {
    ready->fulfill(std::move(current));
    return ready->promise();
  }
  // An expired access token is renewed before the account is handed out;
  // a refused renewal has signed the account out.
  authorizer->refreshTokens([ready, current](bool refreshed) {
    if (refreshed) {
      ready->fulfill(current);
    } else {
      ready->reject(exceptionFor(Error::notLoggedIn));
    }
  });
  return ready->promise();
}

void QMQuelmoConnectController::logout() {
  EventLoop::main().sync([this] {
    if (!account_) {
      return;
    }
    QMAccountManager::shared()->removeAccount(account_);
    preliminaryAccount_.reset();
    stopLoopbackRedirect(LoginResult(Error::notLoggedIn));
    setAccount(nullptr);
  });
}

bool QMQuelmoConnectController::isLoggedIn() const {
  return EventLoop::main().sync(
      [this] { return account_ && account_->token().has_value() && !account_->tokens().accessTokenExpired() && !error_; });
}

void QMQuelmoConnectController::deleteAccount() {
  EventLoop::main().sync([this] {
    auto pageTemplate = deleteAccountURL();
    if (!account_ || !pageTemplate) {
      return;
    }
    auto url = replaceAll(*pageTemplate, "<identifier>", account_->identifier().value_or(""));
    url = replaceAll(std::move(url), "<email>", account_->email().value_or(""));
    if (!boost::urls::parse_absolute_uri(url)) {
      util::logAccounts().warning("The delete-account page is not a valid URL");
      return;
    }
    QMWorkspace::open(url);
  });
}

bool QMQuelmoConnectController::isValidResponse(std::string_view url) {
  return url.find("qmaccounts/quelmoconnect") != std::string_view::npos;
}

void QMQuelmoConnectController::handleOAuthResponse(std::string_view url) {
  if (auto error = EventLoop::main().sync([this, url] { return handleOAuthResponseOnLoop(url); })) {
    throw Exception(*error);
  }
}

std::optional<QMQuelmoConnectController::Error>
QMQuelmoConnectController::handleOAuthResponseOnLoop(std::string_view url) {
  if (!preliminaryAccount_) {
    return Error::notLoggedIn;
  }
  auto serviceName = preliminaryAccount_->serviceName();
  if (!serviceName) {
    return Error::invalidAccount;
  }
  auto authorizer = preliminaryAccount_->webServiceAuthorizer();
  if (!authorizer) {
    return Error::invalidAccount;
  }
  auto parsed = boost::urls::parse_uri_reference(url);
  if (!parsed) {
    return Error::internal;
  }
  if (parsed->path().find(serviceKey(*serviceName)) == std::string::npos) {
    return Error::accountMismatch;
  }
  std::optional<std::string> code;
  // '+' stays '+': codes are opaque, and only %-escapes are decoded. An
  // empty query has no code, and is not walked: Boost.URL 1.81 reads past
  // the end of the URL for an empty query before a fragment ("?#").
  if (!parsed->encoded_query().empty()) {
    for (auto param : parsed->params(boost::urls::encoding_opts(false, false, false))) {
      if (param.key == "code" && param.has_value) {
        code = param.value;
      }
    }
  }
  if (!code) {
    return Error::authenticationFailed;
  }
  authorizer->exchangeCode(*code, true, std::string(url));
  return std::nullopt;
}

void QMQuelmoConnectController::accountDidChange() {
  sendWillChange();
  auto stored = firstQuelmoConnectAccount();
  preliminaryAccount_.reset();
  // Taken out first, so a handler that starts another sign-in keeps its own.
  auto handler = std::exchange(completionHandler_, nullptr);
  stopLoopbackRedirect(stored ? LoginResult(std::shared_ptr<QMAccount>(stored)) : LoginResult(Error::notLoggedIn));
  if (stored) {
    setAccount(stored);
    setError(std::nullopt);
    if (handler) {
      handler(LoginResult(std::shared_ptr<QMAccount>(stored)));
    }
  } else {
    setAccount(nullptr);
    setError(Error::notLoggedIn);
    if (handler) {
      handler(LoginResult(Error::notLoggedIn));
    }
  }
}

std::optional<QMQuelmoConnectController::Error> QMQuelmoConnectController::listenForLoopbackRedirect() {
  stopLoopbackRedirect(std::nullopt);
  const auto configured = redirectURI().value_or("");
  if (!detail::LoopbackRedirect::wanted(configured)) {
    return std::nullopt;
  }
  loopback_ = detail::LoopbackRedirect::listen(configured);
  if (!loopback_) {
    return Error::internal;
  }
  webServiceClientCredentials_.front().redirectURI = loopback_->redirectURI();
  return std::nullopt;
}

void QMQuelmoConnectController::expectLoopbackRedirect(const std::shared_ptr<QMQuelmoConnectAccount>& account,
                                                       const std::string& url) {
  std::string state;
  if (auto parsed = boost::urls::parse_absolute_uri(url)) {
    for (auto param : parsed->params()) {
      if (param.key == "state") {
        state = param.value;
      }
    }
  }
  loopback_->expect(state, [this, account](const std::string& redirect, auto reply) {
    if (preliminaryAccount_ != account) {
      reply(false, "This sign-in has been replaced by a newer one.");
      return false;
    }
    if (auto error = handleOAuthResponseOnLoop(redirect)) {
      reply(false, localizedDescription(*error));
      return false;  // the sign-in stays pending, as after any failed redirect
    }
    loopbackPage_ = std::move(reply);
    return true;
  });
}

void QMQuelmoConnectController::stopLoopbackRedirect(const std::optional<LoginResult>& outcome) {
  if (auto page = std::exchange(loopbackPage_, nullptr)) {
    const auto* account = outcome ? std::get_if<std::shared_ptr<QMAccount>>(&*outcome) : nullptr;
    if (account != nullptr && *account) {
      page(true, "You are signed in to " + (*account)->serviceName().value_or("the service") + " as " +
                     (*account)->identifier().value_or("?") + ". You may close this tab and go back to " +
                     appName_ + ".");
    } else if (outcome) {
      page(false, localizedDescription(std::get<Error>(*outcome)));
    } else {
      page(false, "This sign-in has been replaced by a newer one.");
    }
  }
  if (loopback_) {
    loopback_->stop();
    loopback_.reset();
    if (auto configured = redirectURI()) {
      webServiceClientCredentials_.front().redirectURI = *configured;
    }
  }
}

}  // namespace vantor::account
