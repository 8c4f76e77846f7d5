#include <vantor/account/QMOAuthAccountManager.hpp>

#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <boost/url/parse.hpp>
#include <fstream>
#include <map>
#include <ostream>
#include <sstream>
#include <thread>

#include <vantor/account/QMAccountConstants.hpp>
#include <vantor/account/QMNotificationCenter.hpp>
#include <vantor/platform/EventLoop.hpp>

#include "OAuthSupport.hpp"
#include "ScratchDirectory.hpp"

namespace vantor::account {
namespace {

namespace fs = std::filesystem;

// The host's side: one credentials record, as the controller registers it.
class Credentials : public QMAccountWebServiceCredentialsProviderProtocol,
                    public QMAccountAppIdentifyingProtocol {
 public:
  std::vector<QMWebServiceClientCredentials> webServiceClientCredentials() const override {
    return {QMWebServiceClientCredentials("di-tneilc", "terces", "com.example.notes:/qmaccounts/quelmoconnect",
                                          state, QMWebServiceProvider::quelmoConnect,
                                          std::string(QMQuelmoConnectAccount::typeIdentifier),
                                          typeid(QMQuelmoConnectAccount))};
  }
  std::string appName() const override { return "Notes"; }
  std::string bundleIdentifier() const override { return "com.example.notes"; }

  std::optional<std::string> state;
};

std::map<std::string, std::string> queryOf(const std::string& url) {
  std::map<std::string, std::string> query;
  for (auto param : boost::urls::parse_absolute_uri(url)->params()) {
    query[param.key] = param.value;
  }
  return query;
}

// A loopback port that nothing listens on.
int closedPort() {
  int fd = ::socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  ::bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address);
  socklen_t length = sizeof address;
  ::getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length);
  ::close(fd);
  return ntohs(address.sin_port);
}

class QMOAuthAccountManagerTest : public ::testing::Test {
 protected:
  void SetUp() override {
    xdg_ = scratch_.path();
    ::setenv("XDG_CONFIG_HOME", xdg_.c_str(), 1);
    notifications_ = QMNotificationCenter::defaultCenter().addObserver(
        std::string(QMAccountConstants::QuelmoConnect::accountDidChangeNotificationString),
        [this] { ++notified_; });
  }

  std::shared_ptr<QMOAuthAccountManager> makeManager(QMOAuthServiceConfiguration configuration) {
    auto manager = QMOAuthAccountManager::make(std::move(configuration));
    manager->setDelegateOfWebServiceRequirements(&credentials_);
    manager->setAppIdentifyingDelegate(&credentials_);
    return manager;
  }

  static QMOAuthServiceConfiguration explicitEndpoints() {
    QMOAuthServiceConfiguration configuration;
    configuration.authorizationEndpoint = "https://accounts.example.test/authorize?tenant=7";
    configuration.tokenEndpoint = "https://accounts.example.test/token";
    configuration.scopes = {"openid", "email", "offline_access"};
    configuration.additionalAuthorizationParameters = {{"prompt", "consent"}};
    configuration.deobfuscate = [](std::string_view text) { return std::string(text.rbegin(), text.rend()); };
    return configuration;
  }

  bool waitForNotification(int count) {
    auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    while (notified_ < count && std::chrono::steady_clock::now() < deadline) {
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    platform::EventLoop::main().sync([] {});
    return notified_ == count;
  }

  testing::ScratchDirectory scratch_{"vantor-xdg"};
  fs::path xdg_;
  Credentials credentials_;
  std::atomic<int> notified_{0};
  boost::signals2::scoped_connection notifications_;
};

TEST_F(QMOAuthAccountManagerTest, AuthorizationURLCarriesAFreshStateAndPkcePerSignIn) {
  auto manager = makeManager(explicitEndpoints());
  auto account = manager->createAccount(std::nullopt);
  EXPECT_EQ(account->serviceName(), "Quelmo Connect");
  auto url = account->webServiceAuthorizer()->authorizationURL();
  ASSERT_TRUE(url);
  EXPECT_EQ(url->rfind("https://accounts.example.test/authorize?", 0), 0u);
  auto query = queryOf(*url);
  EXPECT_EQ(query["tenant"], "7") << "the endpoint's own query stays";
  EXPECT_EQ(query["response_type"], "code");
  EXPECT_EQ(query["client_id"], "client-id") << "de-obfuscated";
  EXPECT_EQ(query["redirect_uri"], "com.example.notes:/qmaccounts/quelmoconnect");
  EXPECT_EQ(query["scope"], "openid email offline_access");
  EXPECT_EQ(query["code_challenge_method"], "S256");
  EXPECT_EQ(query["code_challenge"].size(), 43u);
  EXPECT_EQ(query["prompt"], "consent");
  EXPECT_GE(query["state"].size(), 43u);
  EXPECT_FALSE(query["nonce"].empty());
  EXPECT_EQ(query.count("client_secret"), 0u);

  auto again = queryOf(*account->webServiceAuthorizer()->authorizationURL());
  EXPECT_NE(again["state"], query["state"]);
  EXPECT_NE(again["code_challenge"], query["code_challenge"]);
  EXPECT_NE(again["nonce"], query["nonce"]);

  credentials_.state = "host-state";
  EXPECT_EQ(queryOf(*account->webServiceAuthorizer()->authorizationURL())["state"], "host-state");
}

TEST_F(QMOAuthAccountManagerTest, NoAuthorizationURLWithoutCredentialsOrEndpoints) {
  auto manager = makeManager(explicitEndpoints());
  manager->setDelegateOfWebServiceRequirements(nullptr);
  EXPECT_EQ(manager->createAccount(std::nullopt)->webServiceAuthorizer()->authorizationURL(),
            std::nullopt);

  EXPECT_EQ(makeManager({})->createAccount(std::nullopt)->webServiceAuthorizer()->authorizationURL(),
            std::nullopt);

  QMOAuthServiceConfiguration down;
  down.issuer = "http://127.0.0.1:" + std::to_string(closedPort());
  EXPECT_EQ(makeManager(down)->createAccount(std::nullopt)->webServiceAuthorizer()->authorizationURL(),
            std::nullopt);
}

struct ExchangeCase {
  const char* name;
  std::string tokenEndpoint;
  // Turns the authorization URL into the redirect that the browser brings.
  std::function<std::string(const std::string& state)> redirect;
};

// Names the case in test listings instead of dumping its bytes.
void PrintTo(const ExchangeCase& exchange, std::ostream* out) { *out << exchange.name; }

class FailedExchangeTest : public QMOAuthAccountManagerTest,
                           public ::testing::WithParamInterface<ExchangeCase> {};

TEST_P(FailedExchangeTest, IsAnnouncedAndStoresNothing) {
  auto configuration = explicitEndpoints();
  configuration.tokenEndpoint = GetParam().tokenEndpoint;
  configuration.requestTimeout = std::chrono::seconds(5);
  auto manager = makeManager(configuration);
  auto account = manager->createAccount(std::nullopt);
  auto state = queryOf(*account->webServiceAuthorizer()->authorizationURL())["state"];
  account->webServiceAuthorizer()->exchangeCode("the-code", true, GetParam().redirect(state));
  EXPECT_TRUE(waitForNotification(1));
  EXPECT_TRUE(manager->accounts().empty());
  EXPECT_EQ(account->token(), std::nullopt);
  EXPECT_FALSE(fs::exists(manager->storeFile()));
}

const std::string redirectBase = "com.example.notes:/qmaccounts/quelmoconnect?code=the-code";
const std::string unreachable = "http://127.0.0.1:" + std::to_string(closedPort()) + "/token";

INSTANTIATE_TEST_SUITE_P(
    Exchanges, FailedExchangeTest,
    ::testing::Values(
        ExchangeCase{"wrongState", unreachable,
                     [](const std::string&) { return redirectBase + "&state=forged"; }},
        ExchangeCase{"missingState", unreachable, [](const std::string&) { return redirectBase; }},
        ExchangeCase{"repeatedState", unreachable,
                     [](const std::string& state) {
                       return redirectBase + "&state=" + state + "&state=" + state;
                     }},
        ExchangeCase{"plainHttpToAnotherHost", "http://accounts.example.test/token",
                     [](const std::string& state) { return redirectBase + "&state=" + state; }},
        ExchangeCase{"tokenEndpointDown", unreachable,
                     [](const std::string& state) { return redirectBase + "&state=" + state; }}),
    [](const auto& info) { return std::string(info.param.name); });

TEST_F(QMOAuthAccountManagerTest, ACodeIsExchangedOncePerSignIn) {
  auto manager = makeManager(explicitEndpoints());
  auto account = manager->createAccount(std::nullopt);
  auto state = queryOf(*account->webServiceAuthorizer()->authorizationURL())["state"];
  auto redirect = redirectBase + "&state=" + state;
  // The second exchange finds no sign-in waiting, even with the right state.
  account->webServiceAuthorizer()->exchangeCode("the-code", true, redirect + "x");
  account->webServiceAuthorizer()->exchangeCode("the-code", true, redirect);
  EXPECT_TRUE(waitForNotification(2));
  EXPECT_TRUE(manager->accounts().empty());
}

TEST_F(QMOAuthAccountManagerTest, StoresAccountsUnderTheBundleIdentifierAcrossManagers) {
  auto manager = makeManager(explicitEndpoints());
  EXPECT_EQ(manager->storeFile(), xdg_ / "com.example.notes" / "accounts.json");
  auto account = manager->createAccount(std::nullopt);
  account->setIdentity("alice", "alice@example.test");
  QMAccountTokens tokens;
  tokens.accessToken = "access-1";
  tokens.refreshToken = "refresh-1";
  account->setTokens(tokens);
  manager->addAccount(account);
  manager->addAccount(account);  // the same account again replaces itself
  ASSERT_EQ(manager->accounts().size(), 1u);

  auto restarted = makeManager(explicitEndpoints());
  auto accounts = restarted->accounts();
  ASSERT_EQ(accounts.size(), 1u);
  auto restored = std::dynamic_pointer_cast<QMQuelmoConnectAccount>(accounts[0]);
  ASSERT_NE(restored, nullptr);
  EXPECT_EQ(restored->uuid(), account->uuid());
  EXPECT_EQ(restored->email(), "alice@example.test");
  EXPECT_EQ(restored->refreshToken(), "refresh-1");
  EXPECT_NE(restored->webServiceAuthorizer(), nullptr);

  restarted->removeAccount(restored);
  EXPECT_EQ(restored->token(), std::nullopt) << "the removed account forgets its tokens";
  std::stringstream file;
  file << std::ifstream(restarted->storeFile()).rdbuf();
  EXPECT_EQ(file.str().find("refresh-1"), std::string::npos);
  EXPECT_TRUE(makeManager(explicitEndpoints())->accounts().empty());
}

}  // namespace
}  // namespace vantor::account
