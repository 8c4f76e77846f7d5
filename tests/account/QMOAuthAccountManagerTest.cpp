#include <vantor/account/QMOAuthAccountManager.hpp>

#include <gtest/gtest.h>

#include <boost/url/parse.hpp>
#include <fstream>
#include <map>
#include <sstream>

#include "ScratchDirectory.hpp"

namespace vantor::account {
namespace {

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

// The authorization URL; explicit endpoints need no request, so it comes at once.
std::string authorizationURLOf(const std::shared_ptr<QMQuelmoConnectAccount>& account) {
  std::optional<std::string> found;
  account->webServiceAuthorizer()->authorizationURL([&found](std::optional<std::string> url) { found = url; });
  EXPECT_TRUE(found);
  return found.value_or("https://invalid.example.test/");
}

std::map<std::string, std::string> queryOf(const std::string& url) {
  std::map<std::string, std::string> query;
  for (auto param : boost::urls::parse_absolute_uri(url)->params()) {
    query[param.key] = param.value;
  }
  return query;
}

class QMOAuthAccountManagerTest : public ::testing::Test {
 protected:
  void SetUp() override { ::setenv("XDG_CONFIG_HOME", scratch_.path().c_str(), 1); }

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
    configuration.useSecretService = false;
    configuration.deobfuscate = [](std::string_view text) { return std::string(text.rbegin(), text.rend()); };
    return configuration;
  }

  testing::ScratchDirectory scratch_{"vantor-xdg"};
  Credentials credentials_;
};

TEST_F(QMOAuthAccountManagerTest, AuthorizationURLCarriesAFreshStateAndPkcePerSignIn) {
  auto manager = makeManager(explicitEndpoints());
  auto account = manager->createAccount(std::nullopt);
  auto query = queryOf(authorizationURLOf(account));
  EXPECT_EQ(query["tenant"], "7") << "the endpoint's own query stays";
  EXPECT_EQ(query["client_id"], "client-id") << "de-obfuscated";
  EXPECT_GE(query["state"].size(), 43u);
  EXPECT_FALSE(query["nonce"].empty());
  EXPECT_EQ(query.count("client_secret"), 0u);

  auto again = queryOf(authorizationURLOf(account));
  EXPECT_NE(again["state"], query["state"]);
  EXPECT_NE(again["code_challenge"], query["code_challenge"]);
  EXPECT_NE(again["nonce"], query["nonce"]);

  credentials_.state = "host-state";
  EXPECT_EQ(queryOf(authorizationURLOf(account))["state"], "host-state");
}

TEST_F(QMOAuthAccountManagerTest, StoresAccountsUnderTheBundleIdentifierAcrossManagers) {
  auto manager = makeManager(explicitEndpoints());
  EXPECT_EQ(manager->storeFile(), scratch_.path() / "com.example.notes" / "accounts.json");
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
