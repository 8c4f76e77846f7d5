// Sign-in against a real OpenID provider (oidc-provider on 127.0.0.1) in a
// real browser (headless Chromium), from login() to the stored account.
#include <vantor/account/QMQuelmoConnectController.hpp>

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <atomic>
#include <boost/url/parse.hpp>
#include <boost/url/url.hpp>
#include <condition_variable>
#include <deque>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <thread>

#include <vantor/account/QMAccountManager.hpp>
#include <vantor/account/QMOAuthAccountManager.hpp>
#include <vantor/account/QMWorkspace.hpp>

#include "LocalSignIn.hpp"
#include "ScratchDirectory.hpp"

namespace vantor::account {
namespace {

namespace fs = std::filesystem;
using Controller = QMQuelmoConnectController;
using Error = QMQuelmoConnectControllerError;
using testing::LocalOpenIdProvider;

constexpr auto patience = std::chrono::seconds(60);
const std::string redirectPrefix = "com.vantor.signin-test:";

// Stands in for the default browser: keeps each URL for the test to hand
// to the headless browser.
class BrowserQueue {
 public:
  bool open(const std::string& url) {
    std::lock_guard lock(mutex_);
    urls_.push_back(url);
    ready_.notify_all();
    return true;
  }

  std::optional<std::string> next() {
    std::unique_lock lock(mutex_);
    if (!ready_.wait_for(lock, std::chrono::seconds(10), [this] { return !urls_.empty(); })) {
      return std::nullopt;
    }
    auto url = urls_.front();
    urls_.pop_front();
    return url;
  }

  bool empty() {
    std::lock_guard lock(mutex_);
    return urls_.empty();
  }

 private:
  std::mutex mutex_;
  std::condition_variable ready_;
  std::deque<std::string> urls_;
};

unsigned mode(const fs::path& path) {
  struct stat info {};
  ::stat(path.c_str(), &info);
  return info.st_mode & 0777;
}

std::string contents(const fs::path& path) {
  std::stringstream text;
  text << std::ifstream(path).rdbuf();
  return text.str();
}

class SignInEndToEndTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    // Never the user's real configuration: the store goes to a scratch
    // folder, which the helper process inherits too.
    configHome_ = std::make_unique<testing::ScratchDirectory>("vantor-signin-e2e");
    ::setenv("XDG_CONFIG_HOME", configHome_->path().c_str(), 1);
    QMWorkspace::setOpener([](const std::string& url) { return browser().open(url); });
  }
  static void TearDownTestSuite() { configHome_.reset(); }

  void TearDown() override { controller().logout(); }

  static BrowserQueue& browser() {
    static BrowserQueue queue;
    return queue;
  }
  static Controller& controller() { return Controller::shared(); }

  void startProvider(std::optional<int> tokenStatus = std::nullopt) {
    LocalOpenIdProvider::Options options;
    options.tokenStatus = tokenStatus;
    provider_.emplace(options);
    testing::configureTestApplication(provider_->issuer(), options);
  }

  // Starts a sign-in and brings the provider's redirect back from the
  // headless browser.
  std::optional<std::string> signInInBrowser(util::QMPromise<std::shared_ptr<QMAccount>>& promise,
                                             bool deny = false) {
    promise = controller().login();
    auto url = browser().next();
    if (!url) {
      ADD_FAILURE() << "login() opened no page";
      return std::nullopt;
    }
    EXPECT_EQ(url->rfind(provider_->issuer() + "/auth?", 0), 0u) << *url;
    auto redirect = testing::signInWithHeadlessBrowser(*url, redirectPrefix, "alice", deny);
    EXPECT_TRUE(redirect) << "the browser brought no redirect back";
    return redirect;
  }

  static std::optional<Error> outcomeOf(const util::QMPromise<std::shared_ptr<QMAccount>>& promise,
                                        std::shared_ptr<QMAccount>* account = nullptr) {
    auto deadline = std::chrono::steady_clock::now() + patience;
    while (!promise.result() && std::chrono::steady_clock::now() < deadline) {
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    if (!promise.result()) {
      ADD_FAILURE() << "the sign-in did not finish";
      return Error::internal;
    }
    auto result = *promise.result();
    if (result.isFulfilled()) {
      if (account != nullptr) {
        *account = result.value();
      }
      return std::nullopt;
    }
    try {
      std::rethrow_exception(result.error());
    } catch (const QMQuelmoConnectControllerException& e) {
      return e.error();
    } catch (...) {
      return Error::internal;
    }
  }

  // What a freshly started application finds in the store.
  std::string loadInNewProcess() {
    auto run = testing::runToCompletion({VANTOR_ACCOUNT_LOAD_HELPER, provider_->issuer()}, patience);
    return run && run->status == 0 ? run->output : "helper failed";
  }

  void expectNothingStored() {
    EXPECT_TRUE(QMAccountManager::shared()->accounts().empty());
    EXPECT_EQ(controller().account(), nullptr);
    EXPECT_EQ(loadInNewProcess(), "NO ACCOUNT\n");
  }

  static inline std::unique_ptr<testing::ScratchDirectory> configHome_;
  std::optional<LocalOpenIdProvider> provider_;
  util::QMPromise<std::shared_ptr<QMAccount>> promise_{
      boost::make_ready_future(std::shared_ptr<QMAccount>()).share()};
};

TEST_F(SignInEndToEndTest, SignsInKeepsTheAccountAcrossRestartsAndSignsOut) {
  startProvider();
  std::atomic<int> willChange{0};
  boost::signals2::scoped_connection counting =
      controller().objectWillChange().connect([&willChange] { ++willChange; });

  auto redirect = signInInBrowser(promise_);
  ASSERT_TRUE(redirect);
  EXPECT_TRUE(Controller::isValidResponse(*redirect)) << *redirect;
  EXPECT_EQ(willChange, 0);
  controller().handleOAuthResponse(*redirect);

  std::shared_ptr<QMAccount> account;
  ASSERT_EQ(outcomeOf(promise_, &account), std::nullopt);
  ASSERT_NE(account, nullptr);
  EXPECT_EQ(account->identifier(), "alice");
  EXPECT_EQ(account->email(), "alice@example.test");
  EXPECT_TRUE(account->token());
  EXPECT_TRUE(account->refreshToken()) << "offline_access with prompt=consent";
  EXPECT_EQ(controller().account(), account);
  EXPECT_TRUE(controller().isLoggedIn());
  // The notification's own signal, then one each for account and error.
  EXPECT_EQ(willChange, 3);

  auto store = std::dynamic_pointer_cast<QMOAuthAccountManager>(QMAccountManager::shared())->storeFile();
  EXPECT_EQ(store, configHome_->path() / testing::testBundleIdentifier / "accounts.json");
  EXPECT_EQ(mode(store.parent_path()), 0700u);
  EXPECT_EQ(mode(store), 0600u);
  EXPECT_EQ(loadInNewProcess(), "ACCOUNT alice alice@example.test\n");

  controller().deleteAccount();
  EXPECT_EQ(browser().next(),
            "https://accounts.example.test/delete?user=alice&email=alice@example.test");

  controller().logout();
  EXPECT_EQ(controller().account(), nullptr);
  EXPECT_EQ(contents(store).find("alice"), std::string::npos);
  EXPECT_EQ(loadInNewProcess(), "NO ACCOUNT\n");
}

TEST_F(SignInEndToEndTest, DeniedConsentIsAnAuthenticationFailure) {
  startProvider();
  auto redirect = signInInBrowser(promise_, /*deny=*/true);
  ASSERT_TRUE(redirect);
  EXPECT_NE(redirect->find("error=access_denied"), std::string::npos) << *redirect;
  try {
    controller().handleOAuthResponse(*redirect);
    ADD_FAILURE() << "a redirect without a code was accepted";
  } catch (const QMQuelmoConnectControllerException& e) {
    EXPECT_EQ(e.error(), Error::authenticationFailed);
  }
  expectNothingStored();
}

TEST_F(SignInEndToEndTest, RedirectWithAnotherStateEndsSignedOut) {
  startProvider();
  auto redirect = signInInBrowser(promise_);
  ASSERT_TRUE(redirect);
  boost::urls::url forged = *boost::urls::parse_uri(*redirect);
  forged.params().set("state", "forged-by-someone-else");
  controller().handleOAuthResponse(forged.buffer());
  EXPECT_EQ(outcomeOf(promise_), Error::notLoggedIn);
  EXPECT_EQ(controller().error(), Error::notLoggedIn);
  expectNothingStored();
}

TEST_F(SignInEndToEndTest, RefusedCodeExchangeEndsSignedOut) {
  startProvider(400);
  auto redirect = signInInBrowser(promise_);
  ASSERT_TRUE(redirect);
  controller().handleOAuthResponse(*redirect);
  EXPECT_EQ(outcomeOf(promise_), Error::notLoggedIn);
  EXPECT_FALSE(controller().isLoggedIn());
  expectNothingStored();
}

TEST_F(SignInEndToEndTest, ProviderGoingDownBeforeTheExchangeEndsSignedOut) {
  startProvider();
  auto redirect = signInInBrowser(promise_);
  ASSERT_TRUE(redirect);
  provider_->stop();
  controller().handleOAuthResponse(*redirect);
  EXPECT_EQ(outcomeOf(promise_), Error::notLoggedIn);
  expectNothingStored();
}

TEST_F(SignInEndToEndTest, ProviderDownAtSignInOpensNoPage) {
  startProvider();
  auto issuer = provider_->issuer();
  provider_->stop();
  // The account layer discovers the provider's endpoints on the first
  // sign-in, so a provider that is down leaves no page to open.
  testing::configureTestApplication(issuer, provider_->options());
  EXPECT_EQ(outcomeOf(controller().login()), Error::invalidAccount);
  EXPECT_TRUE(browser().empty());
  expectNothingStored();
}

}  // namespace
}  // namespace vantor::account
