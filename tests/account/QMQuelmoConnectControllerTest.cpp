#include <vantor/account/QMQuelmoConnectController.hpp>

#include <gtest/gtest.h>

#include <atomic>
#include <boost/thread/future.hpp>
#include <mutex>

#include <vantor/account/QMAccountConstants.hpp>
#include <vantor/account/QMAccountFactory.hpp>
#include <vantor/account/QMAccountManager.hpp>
#include <vantor/account/QMNotificationCenter.hpp>
#include <vantor/account/QMQuelmoConnectAccount.hpp>
#include <vantor/account/QMWebServiceAuthorizer.hpp>
#include <vantor/account/QMWorkspace.hpp>
#include <vantor/platform/EventLoop.hpp>

// The controller is a process-wide singleton, so these tests share one; each
// case starts from a cleared store and factory, which stand in for the
// account layer.

namespace vantor::account {
namespace {

// Posts the account-did-change notification on the loop, as the account layer does.
void postAccountDidChange() {
  platform::EventLoop::main().post([] {
    QMNotificationCenter::defaultCenter().post(
        std::string(QMAccountConstants::QuelmoConnect::accountDidChangeNotificationString));
  });
}

// An account manager that keeps its accounts in memory only.
class InMemoryAccountManager : public QMAccountManager {
 public:
  std::vector<std::shared_ptr<QMAccount>> accounts() const override {
    std::lock_guard lock(mutex_);
    return accounts_;
  }
  void addAccount(std::shared_ptr<QMAccount> account) override {
    std::lock_guard lock(mutex_);
    accounts_.push_back(std::move(account));
  }
  void removeAccount(const std::shared_ptr<QMAccount>& account) override {
    std::lock_guard lock(mutex_);
    std::erase(accounts_, account);
  }
  void clear() {
    std::lock_guard lock(mutex_);
    accounts_.clear();
  }

 private:
  mutable std::mutex mutex_;
  std::vector<std::shared_ptr<QMAccount>> accounts_;
};

// An account of some other service, which the controller must not take for its own.
class OtherAccount : public QMAccount {
 public:
  OtherAccount() : QMAccount("00000000-0000-0000-0000-0000000000AA") {}
  std::string_view classTypeIdentifier() const override { return "com.example.accounts.Other"; }
};

// Makes what the test asks for and is the authoriser of what it makes: the
// code exchange acts on the last account made, as scripted, and reports
// through the account-did-change notification, as the real one does.
class InMemoryAccountFactory : public QMAccountFactory,
                               public QMWebServiceAuthorizer,
                               public std::enable_shared_from_this<InMemoryAccountFactory> {
 public:
  enum class Makes { quelmoConnectAccount, otherAccount, withoutAuthorizer };
  // signIn gives the account a token, stores it and notifies; fail only
  // notifies; silent does nothing.
  enum class Outcome { signIn, fail, silent };

  void setMakes(Makes makes) {
    std::lock_guard lock(mutex_);
    makes_ = makes;
  }
  void script(Outcome outcome, std::optional<std::string> url) {
    std::lock_guard lock(mutex_);
    outcome_ = outcome;
    url_ = std::move(url);
  }
  std::vector<std::string> exchangedCodes() const { return locked(codes_); }

  std::shared_ptr<QMAccount> createAccount(std::optional<boost::uuids::uuid>, std::uint32_t,
                                           QMWebServiceProvider) override {
    std::lock_guard lock(mutex_);
    codes_.clear();
    std::shared_ptr<QMAccount> account =
        makes_ == Makes::otherAccount
            ? std::shared_ptr<QMAccount>(std::make_shared<OtherAccount>())
            : std::make_shared<QMQuelmoConnectAccount>("00000000-0000-0000-0000-000000000001");
    account->setServiceName("Quelmo Connect");
    if (makes_ != Makes::withoutAuthorizer) {
      account->setWebServiceAuthorizer(shared_from_this());
    }
    last_ = account;
    return account;
  }

  void authorizationURL(URLCompletion completion) override { completion(locked(url_)); }

  // Renews by giving the account a token that is valid for an hour, or, when
  // scripted to fail, signs it out as the real layer does.
  void refreshTokens(RefreshCompletion completion) override {
    auto account = locked(last_).lock();
    bool refresh = locked(outcome_) == Outcome::signIn;
    if (account && refresh) {
      auto tokens = account->tokens();
      tokens.accessToken = "refreshed";
      tokens.expiresAt = std::chrono::system_clock::now() + std::chrono::hours(1);
      account->setTokens(tokens);
    } else if (account) {
      account->setTokens({});
      QMAccountManager::shared()->removeAccount(account);
      postAccountDidChange();
    }
    completion(refresh);
  }

  void exchangeCode(const std::string& code, bool, const std::string&) override {
    std::lock_guard lock(mutex_);
    codes_.push_back(code);
    if (outcome_ == Outcome::silent) {
      return;
    }
    if (auto account = last_.lock(); account && outcome_ == Outcome::signIn) {
      account->setIdentity("user-1", "user@example.test");
      QMAccountTokens tokens;
      tokens.accessToken = "token-for-" + code;
      account->setTokens(tokens);
      QMAccountManager::shared()->addAccount(account);
    }
    postAccountDidChange();
  }

 private:
  template <typename T>
  T locked(const T& member) const {
    std::lock_guard lock(mutex_);
    return member;
  }

  mutable std::mutex mutex_;
  Makes makes_ = Makes::quelmoConnectAccount;
  Outcome outcome_ = Outcome::signIn;
  std::optional<std::string> url_;
  std::vector<std::string> codes_;
  std::weak_ptr<QMAccount> last_;
};

using Controller = QMQuelmoConnectController;
using Error = QMQuelmoConnectControllerError;
using platform::EventLoop;

constexpr const char* redirect = "com.example.notes:/qmaccounts/quelmoconnect";

// How many pages were handed to the browser, instead of opening them.
std::atomic<int> opened{0};

// Waits until the loop has run what was posted so far, such as an exchange's
// notification, and what that work posted in turn.
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
  return promise.future().is_ready() ? thrownBy([&promise] { (void)promise.future().get(); }) : std::nullopt;
}

class QMQuelmoConnectControllerTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    manager_ = std::make_shared<InMemoryAccountManager>();
    factory_ = std::make_shared<InMemoryAccountFactory>();
    QMAccountManager::setShared(manager_);
    QMAccountFactory::setShared(factory_);
    Controller::setClientId("obfuscated-id");
    Controller::setClientSecret("obfuscated-secret");
    Controller::setRedirectURI(redirect);
    QMWorkspace::setOpener([](const std::string&) { ++opened; return true; });
  }

  void SetUp() override {
    controller().logout();
    manager_->clear();
    factory_->setMakes(InMemoryAccountFactory::Makes::quelmoConnectAccount);
    factory_->script(InMemoryAccountFactory::Outcome::signIn,
                     "https://accounts.example.test/authorize?client_id=notes");
    Controller::setDeleteAccountURL(std::nullopt);
    opened = 0;
    willChange_ = controller().objectWillChange().connect([this] { ++willChangeCount_; });
  }

  static Controller& controller() { return Controller::shared(); }

  static inline std::shared_ptr<InMemoryAccountManager> manager_;
  static inline std::shared_ptr<InMemoryAccountFactory> factory_;
  std::atomic<int> willChangeCount_{0};
  boost::signals2::scoped_connection willChange_;
};

// Death tests run first, while nothing is configured yet.
TEST(QMQuelmoConnectControllerConfigurationDeathTest, MissingConfigurationStopsInOrder) {
  EXPECT_DEATH((void)Controller::shared(),
               "ERROR: clientId must be set before instantiating QMQuelmoConnectController");
  Controller::setClientId("id");
  EXPECT_DEATH((void)Controller::shared(),
               "ERROR: clientSecret must be set before instantiating QMQuelmoConnectController");
  Controller::setClientSecret("secret");
  EXPECT_DEATH((void)Controller::shared(),
               "ERROR: redirectURI must be set before instantiating QMQuelmoConnectController");
}

TEST_F(QMQuelmoConnectControllerTest, LoadAndLoginIfNeededGoByTheStoredAccount) {
  controller().load();
  EXPECT_EQ(controller().account(), nullptr);
  EXPECT_EQ(controller().error(), Error::notLoggedIn);
  Controller::setDeleteAccountURL("https://accounts.example.test/delete?id=<identifier>");
  controller().deleteAccount();
  EXPECT_EQ(opened.exchange(0), 0) << "no account, nothing to delete";

  // Another service's account is not ours; ours is found behind it.
  manager_->addAccount(std::make_shared<OtherAccount>());
  auto stored = std::make_shared<QMQuelmoConnectAccount>("11111111-2222-3333-4444-555555555555");
  QMAccountTokens tokens;
  tokens.accessToken = "token";
  stored->setTokens(tokens);
  manager_->addAccount(stored);
  controller().load();
  EXPECT_EQ(controller().account(), stored);
  EXPECT_EQ(controller().error(), Error::notLoggedIn) << "load leaves the error alone";
  EXPECT_FALSE(controller().isLoggedIn()) << "an error stands against being signed in";

  // loginIfNeeded counts the token even while an error is set.
  auto result = controller().loginIfNeeded().result();
  ASSERT_TRUE(result && result->isFulfilled());
  EXPECT_EQ(result->value(), stored);
  EXPECT_EQ(opened.exchange(0), 0);

  // An account without a token is still an account: signing in is refused.
  manager_->clear();
  stored->setTokens({});
  EXPECT_EQ(rejectionOf(controller().loginIfNeeded()), Error::alreadyLoggedIn);

  controller().logout();
  auto promise = controller().loginIfNeeded();
  EXPECT_EQ(promise.result(), std::nullopt);
  controller().handleOAuthResponse(std::string(redirect) + "?code=abc");
  drainLoop();
  ASSERT_TRUE(promise.result() && promise.result()->isFulfilled());
  EXPECT_EQ(promise.result()->value()->token(), "token-for-abc");
}

// A new login replaces the pending one: a replaced handler is never called,
// a replaced promise is rejected, and only the latest gets the account.
TEST_F(QMQuelmoConnectControllerTest, OnlyTheLatestLoginGetsTheAccountOnceOnTheLoop) {
  int first = 0;
  std::vector<Controller::LoginResult> results;
  controller().login([&first](const Controller::LoginResult&) { ++first; });
  auto replaced = controller().login();
  EXPECT_EQ(rejectionOf(replaced), std::nullopt) << "still pending";
  controller().login([&results](const Controller::LoginResult& result) {
    EXPECT_TRUE(EventLoop::main().isCurrentThread());
    results.push_back(result);
  });
  EXPECT_EQ(rejectionOf(replaced), Error::notLoggedIn);
  controller().handleOAuthResponse(std::string(redirect) + "?code=abc");
  drainLoop();
  EXPECT_EQ(first, 0);
  ASSERT_EQ(results.size(), 1u);
  auto account = std::get<std::shared_ptr<QMAccount>>(results[0]);
  EXPECT_EQ(account, controller().account());
  EXPECT_EQ(account->token(), "token-for-abc");

  // A later notification publishes again but calls no handler.
  postAccountDidChange();
  drainLoop();
  EXPECT_EQ(results.size(), 1u);
  EXPECT_EQ(willChangeCount_, 6);

  // objectWillChange is sent on the loop whichever thread calls.
  std::atomic<int> offLoop{0};
  boost::signals2::scoped_connection check = controller().objectWillChange().connect(
      [&offLoop] { offLoop += EventLoop::main().isCurrentThread() ? 0 : 1; });
  controller().load();
  EventLoop::main().sync([] { controller().load(); });
  EXPECT_EQ(willChangeCount_, 8);
  EXPECT_EQ(offLoop, 0);
}

TEST_F(QMQuelmoConnectControllerTest, AnExpiredTokenIsRenewedBeforeTheAccountIsHandedOut) {
  // The factory made it, so the factory's refresh acts on it.
  auto stored = factory_->createAccount(std::nullopt, 0, QMWebServiceProvider::quelmoConnect);
  QMAccountTokens tokens;
  tokens.accessToken = "expired";
  tokens.refreshToken = "refresh";
  tokens.expiresAt = std::chrono::system_clock::now() - std::chrono::seconds(1);
  stored->setTokens(tokens);
  manager_->addAccount(stored);
  postAccountDidChange();  // as after a sign-in: account set, error clear
  drainLoop();
  ASSERT_EQ(controller().account(), stored);
  EXPECT_FALSE(controller().isLoggedIn()) << "an expired access token is no sign-in";

  auto renewed = controller().loginIfNeeded();
  ASSERT_TRUE(renewed.result() && renewed.result()->isFulfilled());
  EXPECT_EQ(renewed.result()->value(), stored);
  EXPECT_EQ(stored->token(), "refreshed");
  EXPECT_TRUE(controller().isLoggedIn());

  // The service refuses the next renewal: signed out, and nobody gets the
  // stale token.
  tokens.expiresAt = std::chrono::system_clock::now() - std::chrono::seconds(1);
  stored->setTokens(tokens);
  factory_->script(InMemoryAccountFactory::Outcome::fail, std::nullopt);
  EXPECT_EQ(rejectionOf(controller().loginIfNeeded()), Error::notLoggedIn);
  drainLoop();
  EXPECT_EQ(controller().account(), nullptr);
  EXPECT_EQ(controller().error(), Error::notLoggedIn);
  EXPECT_EQ(opened, 0);
}

TEST_F(QMQuelmoConnectControllerTest, RefusesWhatCannotSignIn) {
  using Makes = InMemoryAccountFactory::Makes;
  auto login = [] { controller().login([](const Controller::LoginResult&) {}); };
  auto lateRedirect = [] { controller().handleOAuthResponse(std::string(redirect) + "?code=x"); };

  factory_->setMakes(Makes::otherAccount);
  EXPECT_EQ(thrownBy(login), Error::accountCreationFailed);
  factory_->setMakes(Makes::withoutAuthorizer);
  EXPECT_EQ(thrownBy(login), Error::invalidAccount);
  factory_->setMakes(Makes::quelmoConnectAccount);
  factory_->script(InMemoryAccountFactory::Outcome::signIn, std::nullopt);
  EXPECT_EQ(thrownBy(login), Error::invalidAccount);
  EXPECT_EQ(opened.exchange(0), 0);
  // None of them left a sign-in behind.
  EXPECT_EQ(thrownBy(lateRedirect), Error::notLoggedIn);
  // The promise form rejects at once with the same error.
  EXPECT_EQ(rejectionOf(controller().login()), Error::invalidAccount);

  manager_->addAccount(std::make_shared<OtherAccount>());
  EXPECT_EQ(thrownBy(login), Error::alreadyLoggedIn);
  manager_->clear();

  // A failed exchange ends the sign-in: a late redirect finds none pending.
  factory_->script(InMemoryAccountFactory::Outcome::fail, "https://accounts.example.test/authorize");
  auto promise = controller().login();
  controller().handleOAuthResponse(std::string(redirect) + "?code=abc");
  drainLoop();
  EXPECT_EQ(rejectionOf(promise), Error::notLoggedIn);
  EXPECT_EQ(controller().error(), Error::notLoggedIn);
  EXPECT_EQ(thrownBy(lateRedirect), Error::notLoggedIn);
}

TEST_F(QMQuelmoConnectControllerTest, RedirectsGiveTheLastCodeOfTheRightService) {
  const std::string base = redirect;
  factory_->script(InMemoryAccountFactory::Outcome::silent, "https://accounts.example.test/a");
  int calls = 0;
  controller().login([&calls](const Controller::LoginResult&) { ++calls; });
  // Refused redirects leave the sign-in pending for a good one.
  for (const auto& refused : std::vector<std::pair<std::string, Error>>{
           {base + "?code", Error::authenticationFailed},
           {base + "?#code=abc", Error::authenticationFailed},
           // What the service sends when the user denies access.
           {base + "?error=access_denied&state=s", Error::authenticationFailed},
           {"com.example.notes:/callback?code=abc&quelmoconnect", Error::accountMismatch},
           {"com.example.notes:/qm accounts/quelmoconnect?code=abc", Error::internal}}) {
    EXPECT_EQ(thrownBy([&refused] { controller().handleOAuthResponse(refused.first); }), refused.second)
        << refused.first;
  }
  EXPECT_TRUE(factory_->exchangedCodes().empty());
  controller().handleOAuthResponse(base + "?code=first&code=second&code");
  controller().handleOAuthResponse(base + "?code=a%2Bb%3D");
  EXPECT_EQ(factory_->exchangedCodes(), (std::vector<std::string>{"second", "a+b="}));

  factory_->script(InMemoryAccountFactory::Outcome::signIn, std::nullopt);
  controller().handleOAuthResponse(base + "?code=good");
  drainLoop();
  EXPECT_EQ(calls, 1);
  EXPECT_TRUE(controller().isLoggedIn());
}

}  // namespace
}  // namespace vantor::account
