// Sign-in against a real OpenID provider (oidc-provider on 127.0.0.1) in a
// real browser (headless Chromium), from login() to the stored account.
#include <vantor/account/QMQuelmoConnectController.hpp>

#include <gtest/gtest.h>

#include <atomic>
#include <condition_variable>
#include <deque>
#include <thread>

#include <vantor/account/QMAccountManager.hpp>
#include <vantor/account/QMWorkspace.hpp>

#include <vantor/platform/EventLoop.hpp>

#include "LocalSignIn.hpp"
#include "SignInWaits.hpp"
#include "LoopbackHttpServer.hpp"
#include "ScratchDirectory.hpp"

namespace vantor::account {
namespace {

using Controller = QMQuelmoConnectController;
using Error = QMQuelmoConnectControllerError;
using platform::EventLoop;
using testing::LocalOpenIdProvider;
using testing::outcomeOf;

class SignInEndToEndTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    // Never the user's real configuration: the store goes to a scratch
    // folder, which the helper process inherits too.
    configHome_ = std::make_unique<testing::ScratchDirectory>("vantor-signin-e2e");
    ::setenv("XDG_CONFIG_HOME", configHome_->path().c_str(), 1);
    QMWorkspace::setOpener([](const std::string& url) { return browser().add(url); });
  }
  static void TearDownTestSuite() { configHome_.reset(); }

  void TearDown() override { controller().logout(); }

  // Stands in for the default browser: keeps each URL for the test to hand
  // to the headless browser.
  static testing::UrlInbox& browser() {
    static testing::UrlInbox queue;
    return queue;
  }
  static Controller& controller() { return Controller::shared(); }

  void startProvider() {
    provider_.emplace(LocalOpenIdProvider::Options{});
    testing::configureTestApplication(provider_->issuer(), provider_->options());
  }

  // Starts a sign-in (into promise_) and brings the provider's redirect back
  // from the headless browser.
  std::optional<std::string> signInInBrowser() {
    promise_ = controller().login();
    auto url = browser().next();
    if (!url) {
      ADD_FAILURE() << "login() opened no page";
      return std::nullopt;
    }
    EXPECT_EQ(url->rfind(provider_->issuer() + "/auth?", 0), 0u) << *url;
    auto redirect = testing::signInWithHeadlessBrowser(*url, "com.vantor.signin-test:", "alice");
    EXPECT_TRUE(redirect) << "the browser brought no redirect back";
    return redirect;
  }

  // What a freshly started application finds in the store.
  std::string loadInNewProcess() {
    auto run = testing::runToCompletion({VANTOR_ACCOUNT_LOAD_HELPER, provider_->issuer()}, std::chrono::seconds(60));
    return run && run->status == 0 ? run->output : "helper failed";
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

  auto redirect = signInInBrowser();
  ASSERT_TRUE(redirect);
  EXPECT_TRUE(Controller::isValidResponse(*redirect)) << *redirect;
  EXPECT_EQ(willChange, 0);
  controller().handleOAuthResponse(*redirect);

  ASSERT_EQ(outcomeOf(promise_), std::nullopt);
  auto account = promise_.future().get();
  ASSERT_NE(account, nullptr);
  EXPECT_EQ(account->identifier(), "alice");
  EXPECT_EQ(account->email(), "alice@example.test");
  EXPECT_TRUE(account->token());
  EXPECT_TRUE(account->refreshToken()) << "offline_access with prompt=consent";
  EXPECT_EQ(controller().account(), account);
  EXPECT_TRUE(controller().isLoggedIn());
  // The notification's own signal, then one each for account and error.
  EXPECT_EQ(willChange, 3);

  EXPECT_EQ(loadInNewProcess(), "ACCOUNT alice alice@example.test\n");

  controller().deleteAccount();
  EXPECT_EQ(browser().next(),
            "https://accounts.example.test/delete?user=alice&email=alice@example.test");

  controller().logout();
  EXPECT_EQ(controller().account(), nullptr);
  EXPECT_EQ(loadInNewProcess(), "NO ACCOUNT\n");
}

TEST_F(SignInEndToEndTest, LoginLeavesTheEventLoopFreeWhileDiscoveryRuns) {
  // A service whose discovery document takes its time. The handler runs
  // only once the server is made.
  testing::LoopbackHttpServer slow([&slow](const testing::LoopbackHttpServer::Request&) {
    const auto base = slow.url();
    return testing::LoopbackHttpServer::Response{
        200,
        R"({"issuer":")" + base + R"(","authorization_endpoint":")" + base + R"(/auth","token_endpoint":")" + base +
            R"(/token"})",
        std::chrono::milliseconds(1500)};
  });
  testing::configureTestApplication(slow.url(), LocalOpenIdProvider::Options{});
  auto began = std::chrono::steady_clock::now();
  promise_ = controller().login();
  ASSERT_TRUE(slow.waitForRequest("/.well-known/openid-configuration", std::chrono::seconds(5)));
  EventLoop::main().sync([] {});
  EXPECT_LT(std::chrono::steady_clock::now() - began, std::chrono::milliseconds(1000))
      << "login() or the loop waited for discovery";
  auto page = browser().next();
  ASSERT_TRUE(page);
  EXPECT_EQ(page->rfind(slow.url() + "/auth?", 0), 0u) << *page;
  EXPECT_EQ(promise_.result(), std::nullopt);
}

TEST_F(SignInEndToEndTest, ProviderGoingDownEndsSignedOut) {
  startProvider();
  auto redirect = signInInBrowser();
  ASSERT_TRUE(redirect);
  provider_->stop();
  controller().handleOAuthResponse(*redirect);
  EXPECT_EQ(outcomeOf(promise_), Error::notLoggedIn) << "the provider went down before the exchange";
  EXPECT_FALSE(controller().isLoggedIn());

  // The account layer discovers the provider's endpoints on the first
  // sign-in, so a provider that is down then leaves no page to open.
  testing::configureTestApplication(provider_->issuer(), provider_->options());
  EXPECT_EQ(outcomeOf(controller().login()), Error::invalidAccount);
  EXPECT_EQ(browser().next(std::chrono::seconds(0)), std::nullopt);
  EXPECT_TRUE(QMAccountManager::shared()->accounts().empty());
  EXPECT_EQ(controller().account(), nullptr);
  EXPECT_EQ(loadInNewProcess(), "NO ACCOUNT\n");
}

}  // namespace
}  // namespace vantor::account
