#include <vantor/account/QMQuelmoConnectController.hpp>

#include <gtest/gtest.h>

#include <atomic>
#include <boost/thread/future.hpp>
#include <chrono>
#include <mutex>
#include <ostream>

#include <vantor/account/QMAccountFactory.hpp>
#include <vantor/account/QMAccountManager.hpp>
#include <vantor/account/QMHostApplication.hpp>
#include <vantor/account/QMWorkspace.hpp>
#include <vantor/platform/EventLoop.hpp>

#include "InMemoryAccountLayer.hpp"

// The controller is a process-wide singleton, so these tests share one. CTest
// runs each case in a process of its own; run together in one process, each
// case still starts from a cleared store and factory.

namespace vantor::account {
namespace {

using testing::InMemoryAccountFactory;
using testing::InMemoryAccountManager;
using testing::ScriptedAuthorizer;
using Controller = QMQuelmoConnectController;
using Error = QMQuelmoConnectControllerError;
using platform::EventLoop;

constexpr const char* redirect = "com.example.notes:/qmaccounts/quelmoconnect";

// Every URL handed to the browser, instead of opening it.
struct OpenedURLs {
  std::mutex mutex;
  std::vector<std::string> urls;

  std::vector<std::string> take() {
    std::lock_guard lock(mutex);
    return std::exchange(urls, {});
  }
};

OpenedURLs& opened() {
  static OpenedURLs urls;
  return urls;
}

// Waits until the loop has run what was posted so far, such as the
// notification that an exchange posted. Work posted from a loop handler may
// queue behind work posted from here meanwhile, so a few rounds are needed.
void drainLoop() {
  for (int round = 0; round < 3; ++round) {
    EventLoop::main().sync([] {});
  }
}

std::optional<Error> thrownBy(const std::function<void()>& operation) {
  try {
    operation();
  } catch (const QMQuelmoConnectControllerException& e) {
    return e.error();
  }
  return std::nullopt;
}

template <typename T>
std::optional<Error> rejectionOf(const util::QMPromise<T>& promise) {
  auto result = promise.result();
  if (!result || !result->isRejected()) {
    return std::nullopt;
  }
  try {
    std::rethrow_exception(result->error());
  } catch (const QMQuelmoConnectControllerException& e) {
    return e.error();
  } catch (...) {
    return std::nullopt;
  }
}

class QMQuelmoConnectControllerTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    QMHostApplication::setName("Notes");
    QMHostApplication::setBundleIdentifier("com.example.notes");
    manager_ = std::make_shared<InMemoryAccountManager>();
    factory_ = std::make_shared<InMemoryAccountFactory>(manager_);
    QMAccountManager::setShared(manager_);
    QMAccountFactory::setShared(factory_);
    Controller::setClientId("obfuscated-id");
    Controller::setClientSecret("obfuscated-secret");
    Controller::setRedirectURI(redirect);
    Controller::setRedirectURIState("fixed-state");
    QMWorkspace::setOpener([](const std::string& url) {
      std::lock_guard lock(opened().mutex);
      opened().urls.push_back(url);
      return true;
    });
  }

  void SetUp() override {
    controller().logout();
    manager_->clear();
    factory_->setMakes(InMemoryAccountFactory::Makes::quelmoConnectAccount);
    factory_->script(ScriptedAuthorizer::Outcome::signIn,
                     "https://accounts.example.test/authorize?client_id=notes");
    Controller::setDeleteAccountURL(std::nullopt);
    opened().take();
    willChange_ = controller().objectWillChange().connect([this] { ++willChangeCount_; });
  }

  static Controller& controller() { return Controller::shared(); }

  // Signs in through the scripted layer and returns the signed-in account.
  std::shared_ptr<QMAccount> signIn() {
    auto promise = controller().login();
    controller().handleOAuthResponse(std::string(redirect) + "?code=abc&state=fixed-state");
    drainLoop();
    auto result = promise.result();
    return result && result->isFulfilled() ? result->value() : nullptr;
  }

  static inline std::shared_ptr<InMemoryAccountManager> manager_;
  static inline std::shared_ptr<InMemoryAccountFactory> factory_;
  std::atomic<int> willChangeCount_{0};
  boost::signals2::scoped_connection willChange_;
};

TEST(QMQuelmoConnectControllerConfigurationDeathTest, MissingConfigurationStopsInOrder) {
  EXPECT_DEATH((void)Controller::shared(),
               "ERROR: clientId must be set before instantiating QMQuelmoConnectController");
  EXPECT_DEATH(
      {
        Controller::setClientId("id");
        (void)Controller::shared();
      },
      "ERROR: clientSecret must be set before instantiating QMQuelmoConnectController");
  EXPECT_DEATH(
      {
        Controller::setClientId("id");
        Controller::setClientSecret("secret");
        (void)Controller::shared();
      },
      "ERROR: redirectURI must be set before instantiating QMQuelmoConnectController");
}

TEST_F(QMQuelmoConnectControllerTest, SetUpRegistersTheCredentialsAndTheHostWithTheManager) {
  auto credentials = controller().webServiceClientCredentials();
  ASSERT_EQ(credentials.size(), 1u);
  EXPECT_EQ(credentials[0].obfuscatedClientId, "obfuscated-id");
  EXPECT_EQ(credentials[0].obfuscatedClientSecret, "obfuscated-secret");
  EXPECT_EQ(credentials[0].redirectURI, redirect);
  EXPECT_EQ(credentials[0].redirectURIState, "fixed-state");
  EXPECT_EQ(credentials[0].serviceProvider, QMWebServiceProvider::quelmoConnect);
  EXPECT_EQ(static_cast<int>(credentials[0].serviceProvider), 1);
  EXPECT_EQ(credentials[0].serviceProviderClassTypeIdentifier,
            "com.quelmo.accounts.QMQuelmoConnectAccount");
  EXPECT_EQ(credentials[0].serviceProviderClassType, std::type_index(typeid(QMQuelmoConnectAccount)));

  EXPECT_EQ(manager_->delegateOfWebServiceRequirements(), &controller());
  EXPECT_EQ(manager_->appIdentifyingDelegate(), &controller());
  EXPECT_EQ(controller().appName(), "Notes");
  EXPECT_EQ(controller().bundleIdentifier(), "com.example.notes");
}

TEST_F(QMQuelmoConnectControllerTest, LoadTakesTheStoredAccountOrReportsNotLoggedIn) {
  controller().load();
  EXPECT_EQ(controller().account(), nullptr);
  EXPECT_EQ(controller().error(), Error::notLoggedIn);

  // Another service's account is not ours; ours is found behind it.
  manager_->addAccount(std::make_shared<testing::OtherAccount>());
  auto stored = testing::makeAccount("user-7", "seven@example.test", "token");
  manager_->addAccount(stored);
  controller().load();
  EXPECT_EQ(controller().account(), stored);
  EXPECT_EQ(controller().error(), Error::notLoggedIn) << "load leaves the error alone";
  EXPECT_FALSE(controller().isLoggedIn()) << "an error stands against being signed in";
}

TEST_F(QMQuelmoConnectControllerTest, LoadWithoutCredentialsDelegateStops) {
  EXPECT_DEATH(
      {
        QMAccountManager::setShared(std::make_shared<InMemoryAccountManager>());
        controller().load();
      },
      "delegateOfWebServiceRequirements not set");
}

TEST_F(QMQuelmoConnectControllerTest, SignInPublishesTheAccountAndCallsTheHandlerOnce) {
  std::vector<Controller::LoginResult> results;
  controller().login([&results](const Controller::LoginResult& result) {
    EXPECT_TRUE(EventLoop::main().isCurrentThread());
    results.push_back(result);
  });
  EXPECT_EQ(opened().take(),
            std::vector<std::string>{"https://accounts.example.test/authorize?client_id=notes"});
  EXPECT_EQ(willChangeCount_, 0) << "a pending sign-in is not published";

  controller().handleOAuthResponse(std::string(redirect) + "?code=abc&state=fixed-state");
  drainLoop();
  ASSERT_EQ(results.size(), 1u);
  auto account = std::get<std::shared_ptr<QMAccount>>(results[0]);
  EXPECT_EQ(account, controller().account());
  EXPECT_EQ(account->token(), "token-for-abc");
  EXPECT_EQ(controller().error(), std::nullopt);
  EXPECT_TRUE(controller().isLoggedIn());
  // Once for the notification, then once each for account and error.
  EXPECT_EQ(willChangeCount_, 3);

  auto exchanges = factory_->lastAuthorizer()->exchanges();
  ASSERT_EQ(exchanges.size(), 1u);
  EXPECT_TRUE(exchanges[0].addToStore);
  EXPECT_EQ(exchanges[0].redirectURL, std::string(redirect) + "?code=abc&state=fixed-state");

  // A later notification publishes again but calls no handler.
  testing::postAccountDidChange();
  drainLoop();
  EXPECT_EQ(results.size(), 1u);
  EXPECT_EQ(willChangeCount_, 6);
}

TEST_F(QMQuelmoConnectControllerTest, FailedExchangeEndsSignedOutWithNotLoggedIn) {
  factory_->script(ScriptedAuthorizer::Outcome::fail, "https://accounts.example.test/authorize");
  auto promise = controller().login();
  controller().handleOAuthResponse(std::string(redirect) + "?code=abc");
  drainLoop();
  EXPECT_EQ(rejectionOf(promise), Error::notLoggedIn);
  EXPECT_EQ(controller().account(), nullptr);
  EXPECT_EQ(controller().error(), Error::notLoggedIn);
  EXPECT_FALSE(controller().isLoggedIn());
  // The sign-in is over: a late redirect finds none pending.
  EXPECT_EQ(thrownBy([] { controller().handleOAuthResponse(std::string(redirect) + "?code=x"); }),
            Error::notLoggedIn);
}

TEST_F(QMQuelmoConnectControllerTest, LoginRefusesWhatCannotSignIn) {
  using Makes = InMemoryAccountFactory::Makes;
  auto login = [] { controller().login([](const Controller::LoginResult&) {}); };

  factory_->setMakes(Makes::nothing);
  EXPECT_EQ(thrownBy(login), Error::accountCreationFailed);
  factory_->setMakes(Makes::otherAccount);
  EXPECT_EQ(thrownBy(login), Error::accountCreationFailed);
  factory_->setMakes(Makes::withoutAuthorizer);
  EXPECT_EQ(thrownBy(login), Error::invalidAccount);
  factory_->setMakes(Makes::quelmoConnectAccount);
  factory_->script(ScriptedAuthorizer::Outcome::signIn, std::nullopt);
  EXPECT_EQ(thrownBy(login), Error::invalidAccount);
  EXPECT_TRUE(opened().take().empty());
  // None of them left a sign-in behind.
  EXPECT_EQ(thrownBy([] { controller().handleOAuthResponse(std::string(redirect) + "?code=x"); }),
            Error::notLoggedIn);

  // The promise form rejects at once with the same error.
  EXPECT_EQ(rejectionOf(controller().login()), Error::invalidAccount);
}

TEST_F(QMQuelmoConnectControllerTest, LoginRefusesWhileAnyAccountIsStored) {
  manager_->addAccount(std::make_shared<testing::OtherAccount>());
  EXPECT_EQ(thrownBy([] { controller().login([](const Controller::LoginResult&) {}); }),
            Error::alreadyLoggedIn);
  manager_->clear();

  ASSERT_NE(signIn(), nullptr);
  manager_->clear();  // the account is still set, though no longer stored
  EXPECT_EQ(rejectionOf(controller().login()), Error::alreadyLoggedIn);
  EXPECT_TRUE(opened().take().size() == 1) << "only the first sign-in opened the browser";
}

TEST_F(QMQuelmoConnectControllerTest, NewLoginReplacesThePendingHandler) {
  int first = 0;
  int second = 0;
  controller().login([&first](const Controller::LoginResult&) { ++first; });
  controller().login([&second](const Controller::LoginResult&) { ++second; });
  controller().handleOAuthResponse(std::string(redirect) + "?code=abc");
  drainLoop();
  EXPECT_EQ(first, 0);
  EXPECT_EQ(second, 1);
}

struct RedirectCase {
  const char* name;
  std::string url;
  std::optional<Error> error;    // thrown by handleOAuthResponse
  std::optional<std::string> code;  // exchanged otherwise
};

void PrintTo(const RedirectCase& redirect, std::ostream* out) { *out << redirect.url; }

class RedirectTest : public QMQuelmoConnectControllerTest,
                     public ::testing::WithParamInterface<RedirectCase> {};

TEST_P(RedirectTest, TakesTheLastCodeOfTheRightService) {
  const auto& param = GetParam();
  factory_->script(ScriptedAuthorizer::Outcome::silent, "https://accounts.example.test/a");
  int calls = 0;
  controller().login([&calls](const Controller::LoginResult&) { ++calls; });
  EXPECT_EQ(thrownBy([&param] { controller().handleOAuthResponse(param.url); }), param.error);
  auto exchanges = factory_->lastAuthorizer()->exchanges();
  if (param.code) {
    ASSERT_EQ(exchanges.size(), 1u);
    EXPECT_EQ(exchanges[0].code, *param.code);
  } else {
    EXPECT_TRUE(exchanges.empty());
    // A refused redirect leaves the sign-in pending for a good one.
    factory_->lastAuthorizer()->script(ScriptedAuthorizer::Outcome::signIn, std::nullopt);
    controller().handleOAuthResponse(std::string(redirect) + "?code=good");
    drainLoop();
    EXPECT_EQ(calls, 1);
    EXPECT_TRUE(controller().isLoggedIn());
  }
}

const std::string base = redirect;

INSTANTIATE_TEST_SUITE_P(
    Redirects, RedirectTest,
    ::testing::Values(
        RedirectCase{"code", base + "?code=abc&state=s", std::nullopt, "abc"},
        RedirectCase{"lastCodeWins", base + "?code=first&code=second", std::nullopt, "second"},
        RedirectCase{"valuelessCodeSkipped", base + "?code=first&code", std::nullopt, "first"},
        RedirectCase{"escapesDecoded", base + "?code=a%2Bb%3D", std::nullopt, "a+b="},
        RedirectCase{"serviceAsHost", "com.example.notes://qmaccounts/quelmoconnect?code=h",
                     std::nullopt, "h"},
        RedirectCase{"onlyValuelessCode", base + "?code", Error::authenticationFailed,
                     std::nullopt},
        RedirectCase{"accessDenied", base + "?error=access_denied&state=s",
                     Error::authenticationFailed, std::nullopt},
        RedirectCase{"otherService", "com.example.notes:/qmaccounts/otherservice?code=abc",
                     Error::accountMismatch, std::nullopt},
        RedirectCase{"serviceOnlyInQuery", "com.example.notes:/callback?code=abc&quelmoconnect",
                     Error::accountMismatch, std::nullopt},
        RedirectCase{"pathIsCaseSensitive", "com.example.notes:/qmaccounts/QuelmoConnect?code=a",
                     Error::accountMismatch, std::nullopt},
        RedirectCase{"unreadable", "com.example.notes:/qm accounts/quelmoconnect?code=abc",
                     Error::internal, std::nullopt}),
    [](const auto& info) { return std::string(info.param.name); });

TEST_F(QMQuelmoConnectControllerTest, RedirectNeedsTheAccountsServiceName) {
  factory_->setMakes(InMemoryAccountFactory::Makes::withoutServiceName);
  controller().login([](const Controller::LoginResult&) {});
  EXPECT_EQ(thrownBy([] { controller().handleOAuthResponse(std::string(redirect) + "?code=a"); }),
            Error::invalidAccount);
}

TEST_F(QMQuelmoConnectControllerTest, LoginIfNeededCountsATokenEvenWhileAnErrorIsSet) {
  auto stored = testing::makeAccount("user-7", "seven@example.test", "token");
  manager_->addAccount(stored);
  controller().load();
  // A load that finds nothing sets the error and leaves the account.
  manager_->clear();
  controller().load();
  ASSERT_EQ(controller().account(), stored);
  ASSERT_EQ(controller().error(), Error::notLoggedIn);

  EXPECT_FALSE(controller().isLoggedIn());
  auto result = controller().loginIfNeeded().result();
  ASSERT_TRUE(result && result->isFulfilled());
  EXPECT_EQ(result->value(), stored);
  EXPECT_TRUE(opened().take().empty());
}

TEST_F(QMQuelmoConnectControllerTest, LoginIfNeededSignsInWhenTheAccountHasNoToken) {
  manager_->addAccount(testing::makeAccount("user-7", "seven@example.test", std::nullopt));
  controller().load();
  manager_->clear();
  ASSERT_NE(controller().account(), nullptr);
  // An account without a token is still an account: signing in is refused.
  EXPECT_EQ(rejectionOf(controller().loginIfNeeded()), Error::alreadyLoggedIn);

  controller().logout();
  auto promise = controller().loginIfNeeded();
  EXPECT_EQ(promise.result(), std::nullopt);
  controller().handleOAuthResponse(std::string(redirect) + "?code=abc");
  drainLoop();
  ASSERT_TRUE(promise.result() && promise.result()->isFulfilled());
  EXPECT_EQ(promise.result()->value()->token(), "token-for-abc");
}

TEST_F(QMQuelmoConnectControllerTest, LogoutRemovesTheAccountAndKeepsTheError) {
  controller().logout();
  EXPECT_EQ(willChangeCount_, 0) << "nothing to sign out of";

  auto account = signIn();
  ASSERT_NE(account, nullptr);
  willChangeCount_ = 0;
  controller().logout();
  EXPECT_EQ(controller().account(), nullptr);
  EXPECT_TRUE(manager_->accounts().empty());
  EXPECT_EQ(controller().error(), std::nullopt);
  EXPECT_EQ(willChangeCount_, 1);
}

TEST_F(QMQuelmoConnectControllerTest, DeleteAccountOpensTheFilledInTemplate) {
  Controller::setDeleteAccountURL("https://accounts.example.test/delete?id=<identifier>&mail=<email>");
  controller().deleteAccount();
  EXPECT_TRUE(opened().take().empty()) << "no account, nothing to delete";

  ASSERT_NE(signIn(), nullptr);
  opened().take();
  controller().deleteAccount();
  EXPECT_EQ(opened().take(), std::vector<std::string>{
                                 "https://accounts.example.test/delete?id=user-1&mail=user@example.test"});

  Controller::setDeleteAccountURL("https://accounts.example.test/delete");
  controller().deleteAccount();
  EXPECT_EQ(opened().take(), std::vector<std::string>{"https://accounts.example.test/delete"});

  Controller::setDeleteAccountURL("delete me <email>");
  controller().deleteAccount();
  EXPECT_TRUE(opened().take().empty()) << "not a URL";

  Controller::setDeleteAccountURL(std::nullopt);
  controller().deleteAccount();
  EXPECT_TRUE(opened().take().empty());
}

TEST_F(QMQuelmoConnectControllerTest, WillChangeIsSentOnTheLoopWhicheverThreadCalls) {
  std::atomic<int> offLoop{0};
  boost::signals2::scoped_connection check =
      controller().objectWillChange().connect([&offLoop] {
        if (!EventLoop::main().isCurrentThread()) {
          ++offLoop;
        }
      });
  controller().load();  // from the test's thread
  EventLoop::main().sync([] { controller().load(); });
  EXPECT_EQ(willChangeCount_, 2);
  EXPECT_EQ(offLoop, 0);
}

TEST(QMQuelmoConnectControllerStaticTest, RecognisesTheServicesRedirectAnywhereInTheURL) {
  EXPECT_TRUE(Controller::isValidResponse("com.example.notes:/qmaccounts/quelmoconnect?code=1"));
  EXPECT_TRUE(Controller::isValidResponse("https://x.test/?next=qmaccounts/quelmoconnect"));
  EXPECT_FALSE(Controller::isValidResponse("com.example.notes:/qmaccounts/QuelmoConnect"));
  EXPECT_FALSE(Controller::isValidResponse("com.example.notes:/qmaccounts%2Fquelmoconnect"));
  EXPECT_FALSE(Controller::isValidResponse(""));
}

class ErrorTextTest : public ::testing::TestWithParam<std::pair<Error, const char*>> {};

TEST_P(ErrorTextTest, EveryCaseHasItsOwnTitleAndDescription) {
  auto [error, name] = GetParam();
  EXPECT_EQ(caseName(error), name);
  auto title = localizedTitle(error);
  auto description = localizedDescription(error);
  EXPECT_NE(title, "Error." + std::string(name) + ".title") << "missing from the table";
  EXPECT_NE(description, "Error." + std::string(name) + ".description") << "missing from the table";
  EXPECT_NE(title, description);
  QMQuelmoConnectControllerException exception(error);
  EXPECT_EQ(exception.error(), error);
  EXPECT_NE(std::string(exception.what()).find(description), std::string::npos);
}

INSTANTIATE_TEST_SUITE_P(
    Cases, ErrorTextTest,
    ::testing::Values(std::pair{Error::notLoggedIn, "notLoggedIn"},
                      std::pair{Error::alreadyLoggedIn, "alreadyLoggedIn"},
                      std::pair{Error::accountCreationFailed, "accountCreationFailed"},
                      std::pair{Error::invalidAccount, "invalidAccount"},
                      std::pair{Error::accountMismatch, "accountMismatch"},
                      std::pair{Error::authenticationFailed, "authenticationFailed"},
                      std::pair{Error::internal, "internal"}),
    [](const auto& info) { return std::string(info.param.second); });

}  // namespace
}  // namespace vantor::account
