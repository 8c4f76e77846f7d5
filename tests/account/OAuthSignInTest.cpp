// The account layer against a sign-in service that the test plays itself
// on a loopback HTTP server.
#include <gtest/gtest.h>

#include <boost/json.hpp>
#include <boost/url/parse.hpp>
#include <condition_variable>
#include <ctime>
#include <future>
#include <map>
#include <tuple>

#include <vantor/account/QMAccountConstants.hpp>
#include <vantor/account/QMNotificationCenter.hpp>
#include <vantor/account/QMOAuthAccountManager.hpp>
#include <vantor/platform/EventLoop.hpp>

#include "LoopbackHttpServer.hpp"
#include "OAuthSupport.hpp"
#include "ScratchDirectory.hpp"

namespace vantor::account {
namespace {

namespace json = boost::json;
using namespace std::chrono_literals;
using testing::LoopbackHttpServer;
using Request = LoopbackHttpServer::Request;
using Response = LoopbackHttpServer::Response;

constexpr const char* clientId = "client-id";
constexpr const char* redirectURI = "com.example.notes:/qmaccounts/quelmoconnect";

class Credentials : public QMAccountWebServiceCredentialsProviderProtocol,
                    public QMAccountAppIdentifyingProtocol {
 public:
  std::vector<QMWebServiceClientCredentials> webServiceClientCredentials() const override {
    return {QMWebServiceClientCredentials(clientId, "secret", redirectURI, state,
                                          QMWebServiceProvider::quelmoConnect,
                                          std::string(QMQuelmoConnectAccount::typeIdentifier),
                                          typeid(QMQuelmoConnectAccount))};
  }
  std::string appName() const override { return "Notes"; }
  std::string bundleIdentifier() const override { return "com.example.notes"; }

  std::optional<std::string> state;  // the host's own, instead of a fresh one per sign-in
};

std::int64_t unixNow() { return std::time(nullptr); }

std::string unsignedJwt(const json::object& claims) {
  using detail::base64UrlEncode;
  return base64UrlEncode(R"({"alg":"RS256","typ":"JWT"})") + "." + base64UrlEncode(json::serialize(claims)) +
         ".c2lnbmF0dXJl";
}

std::map<std::string, std::string> formOf(const std::string& text) {
  std::map<std::string, std::string> fields;
  const std::string query = "?" + text;  // the view below points into it
  for (auto param : boost::urls::parse_uri_reference(query)->params()) {
    fields[param.key] = param.value;
  }
  return fields;
}

class OAuthSignInTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ::setenv("XDG_CONFIG_HOME", scratch_.path().c_str(), 1);
    observer_ = QMNotificationCenter::defaultCenter().addObserver(
        std::string(QMAccountConstants::QuelmoConnect::accountDidChangeNotificationString), [this] {
          std::lock_guard lock(mutex_);
          ++notifications_;
          notified_.notify_all();
        });
  }

  // The service: discovery, token, userinfo and revocation endpoints. What
  // the token endpoint answers is up to each test.
  Response serve(const Request& request) {
    std::lock_guard lock(mutex_);
    const auto base = server_.url();
    const auto path = request.target.substr(0, request.target.find('?'));
    if (path == "/.well-known/openid-configuration") {
      return {200,
              json::serialize(json::object{{"issuer", base},
                                           {"authorization_endpoint", authorizationEndpoint_.value_or(base + "/authorize")},
                                           {"token_endpoint", base + "/token"},
                                           {"userinfo_endpoint", base + "/userinfo"},
                                           {"revocation_endpoint", base + "/revoke"}})};
    }
    if (path == "/token" && tokenAnswer_) {
      return tokenAnswer_(formOf(request.body));
    }
    if (path == "/userinfo") {
      return {200, R"({"sub":"alice","email":"alice@example.test"})"};
    }
    if (path == "/revoke") {
      return {200, "", 1500ms};
    }
    return {404, "{}"};
  }

  // A token response with an ID token for this sign-in, after `change`.
  Response tokens(const std::function<void(json::object& claims, json::object& response)>& change = {}) {
    json::object claims{{"iss", server_.url()}, {"aud", clientId},          {"sub", "alice"},
                        {"email", "alice@example.test"}, {"exp", unixNow() + 600}, {"iat", unixNow()},
                        {"nonce", nonce_}};
    json::object response{{"access_token", "access-1"}, {"token_type", "Bearer"}, {"expires_in", 3600},
                          {"refresh_token", "refresh-1"}};
    if (change) {
      change(claims, response);
    }
    response["id_token"] = unsignedJwt(claims);
    return {200, json::serialize(response)};
  }

  void answerTokens(std::function<Response(const std::map<std::string, std::string>& form)> answer) {
    std::lock_guard lock(mutex_);
    tokenAnswer_ = std::move(answer);
  }

  QMOAuthServiceConfiguration discovered() { return withIssuer(server_.url()); }

  static QMOAuthServiceConfiguration withIssuer(const std::string& issuer) {
    QMOAuthServiceConfiguration configuration;
    configuration.issuer = issuer;
    configuration.requestTimeout = 5s;
    configuration.useSecretService = false;
    return configuration;
  }

  // The same store, as a freshly started application finds it.
  std::shared_ptr<QMOAuthAccountManager> restarted() {
    auto manager = QMOAuthAccountManager::make(discovered());
    manager->setAppIdentifyingDelegate(&credentials_);
    return manager;
  }

  void makeManager(QMOAuthServiceConfiguration configuration) {
    manager_ = QMOAuthAccountManager::make(std::move(configuration));
    manager_->setDelegateOfWebServiceRequirements(&credentials_);
    manager_->setAppIdentifyingDelegate(&credentials_);
    account_ = manager_->createAccount(std::nullopt);
  }

  std::optional<std::string> authorizationURL() {
    auto url = std::make_shared<std::promise<std::optional<std::string>>>();
    auto future = url->get_future();
    account_->webServiceAuthorizer()->authorizationURL(
        [url](std::optional<std::string> found) { url->set_value(std::move(found)); });
    if (future.wait_for(10s) != std::future_status::ready) {
      ADD_FAILURE() << "no authorization URL came";
      return std::nullopt;
    }
    auto found = future.get();
    if (found) {
      for (auto param : boost::urls::parse_absolute_uri(*found)->params()) {
        std::lock_guard lock(mutex_);
        (param.key == "state" ? state_ : param.key == "nonce" ? nonce_ : ignored_) = param.value;
      }
    }
    return found;
  }

  std::string redirect(const std::string& code, std::optional<std::string> state = std::nullopt) {
    std::lock_guard lock(mutex_);
    return std::string(redirectURI) + "?code=" + code + "&state=" + state.value_or(state_);
  }

  void exchange(const std::string& redirectURL) {
    account_->webServiceAuthorizer()->exchangeCode(formOf(redirectURL.substr(redirectURL.find('?') + 1))["code"],
                                                    true, redirectURL);
  }

  // Waits for the next account-did-change notification, and then for
  // anything the loop still has queued.
  bool notified() {
    bool came = false;
    {
      std::unique_lock lock(mutex_);
      came = notified_.wait_for(lock, 10s, [this] { return notifications_ > awaited_; });
      awaited_ += came ? 1 : 0;
    }
    platform::EventLoop::main().sync([] {});
    platform::EventLoop::main().sync([] {});
    return came;
  }

  int notifications() {
    std::lock_guard lock(mutex_);
    return notifications_;
  }

  // A whole sign-in with the genuine redirect; true when it ended signed in.
  // Failed or not, it must end with a notification.
  bool signIn() {
    makeManager(discovered());
    if (!authorizationURL()) {
      return false;
    }
    exchange(redirect("code-1"));
    if (!notified()) {
      ADD_FAILURE() << "the sign-in never ended";
      return false;
    }
    return !manager_->accounts().empty();
  }

  bool refresh() {
    std::promise<bool> done;
    account_->webServiceAuthorizer()->refreshTokens([&done](bool refreshed) { done.set_value(refreshed); });
    return done.get_future().get();
  }

  int requestsTo(const std::string& path) {
    auto all = server_.requests();
    return static_cast<int>(std::count_if(all.begin(), all.end(), [&path](const Request& request) {
      return request.target.substr(0, request.target.find('?')) == path;
    }));
  }

  std::mutex mutex_;
  std::condition_variable notified_;
  int notifications_ = 0;
  int awaited_ = 0;
  std::string state_, nonce_, ignored_;
  std::optional<std::string> authorizationEndpoint_;
  std::function<Response(const std::map<std::string, std::string>&)> tokenAnswer_;
  testing::ScratchDirectory scratch_{"vantor-oauth"};
  LoopbackHttpServer server_{[this](const Request& request) { return serve(request); }};
  Credentials credentials_;
  boost::signals2::scoped_connection observer_;
  std::shared_ptr<QMOAuthAccountManager> manager_;
  std::shared_ptr<QMQuelmoConnectAccount> account_;
};

TEST_F(OAuthSignInTest, RefusalIdTokenChecksAndNumbersFromTheNetworkEndTheSignInOneWayOrTheOther) {
  answerTokens([](const auto&) { return Response{400, R"({"error":"invalid_grant"})"}; });
  EXPECT_FALSE(signIn()) << "the service refused the code";
  const std::vector<std::tuple<const char*, std::function<void(json::object&, json::object&)>, bool>> cases{
      {"genuine", {}, true},
      {"another issuer", [](auto& c, auto&) { c["iss"] = "http://127.0.0.1:1"; }, false},
      {"another audience", [](auto& c, auto&) { c["aud"] = "someone-else"; }, false},
      {"several audiences, no azp", [](auto& c, auto&) { c["aud"] = json::array{clientId, "other"}; }, false},
      {"several audiences, our azp",
       [](auto& c, auto&) { c["aud"] = json::array{clientId, "other"}; c["azp"] = clientId; }, true},
      {"another authorized party", [](auto& c, auto&) { c["azp"] = "other"; }, false},
      {"expired long ago", [](auto& c, auto&) { c["exp"] = unixNow() - 600; }, false},
      {"expired within the clock leeway", [](auto& c, auto&) { c["exp"] = unixNow() - 30; }, true},
      {"no expiry", [](auto& c, auto&) { c.erase("exp"); }, false},
      {"another sign-in's nonce", [](auto& c, auto&) { c["nonce"] = "replayed"; }, false},
      // The userinfo endpoint would name alice: the ID token itself must.
      {"no subject", [](auto& c, auto&) { c.erase("sub"); }, false},
      {"fractional lifetime", [](auto&, auto& r) { r["expires_in"] = 3599.5; }, true},
      {"negative lifetime", [](auto&, auto& r) { r["expires_in"] = -5; }, false},
      {"huge lifetime", [](auto&, auto& r) { r["expires_in"] = 1e300; }, false},
      {"lifetime as text", [](auto&, auto& r) { r["expires_in"] = "3600"; }, false},
      {"expiry beyond the clock", [](auto& c, auto&) { c["exp"] = std::int64_t{9'000'000'000'000'000'000}; }, false},
      {"expiry far beyond the clock", [](auto& c, auto&) { c["exp"] = 1e300; }, false},
      {"unsigned expiry", [](auto& c, auto&) { c["exp"] = std::uint64_t{18'000'000'000'000'000'000u}; }, false},
  };
  for (const auto& [name, change, signsIn] : cases) {
    SCOPED_TRACE(name);
    answerTokens([this, &change = change](const auto&) { return tokens(change); });
    EXPECT_EQ(signIn(), signsIn);
    if (!manager_->accounts().empty()) {
      EXPECT_EQ(account_->identifier(), "alice");
      auto left = *account_->tokens().expiresAt - std::chrono::system_clock::now();
      EXPECT_GT(left, 3500s);
      EXPECT_LE(left, 3600s);
      manager_->removeAccount(account_);
    }
  }
}

TEST_F(OAuthSignInTest, IssuerIsCheckedWithExplicitEndpointsAndNoDiscovery) {
  auto configuration = withIssuer("https://id.example.test");
  configuration.authorizationEndpoint = server_.url() + "/authorize";
  configuration.tokenEndpoint = server_.url() + "/token";
  for (const auto& [issuer, signsIn] : std::vector<std::pair<std::string, bool>>{
           {"https://id.example.test", true}, {"https://other.example.test", false}}) {
    SCOPED_TRACE(issuer);
    answerTokens([this, issuer = issuer](const auto&) {
      return tokens([&issuer](auto& claims, auto&) { claims["iss"] = issuer; });
    });
    makeManager(configuration);
    ASSERT_TRUE(authorizationURL());
    exchange(redirect("code-1"));
    ASSERT_TRUE(notified());
    EXPECT_EQ(account_->token().has_value(), signsIn);
  }
  EXPECT_EQ(requestsTo("/.well-known/openid-configuration"), 0);
}

TEST_F(OAuthSignInTest, OnlyTheGenuineRedirectCountsAndOnlyOnce) {
  answerTokens([this](const auto&) { return tokens(); });
  makeManager(discovered());
  ASSERT_TRUE(authorizationURL());
  const auto genuineState = state_;
  // A redirect from a sign-in that was abandoned, and a forged one: ignored,
  // without a notification, and the sign-in still waits for its own.
  ASSERT_TRUE(authorizationURL());
  exchange(redirect("stale", genuineState));
  exchange(redirect("forged", "guessed-state"));
  exchange(std::string(redirectURI) + "?code=forged");
  // The pending sign-in's state, but in the fragment after an empty query.
  auto inFragment = redirect("forged");
  inFragment.insert(inFragment.find('?') + 1, "#");
  exchange(inFragment);
  // The genuine one, delivered twice.
  exchange(redirect("code-1"));
  exchange(redirect("code-1"));
  ASSERT_TRUE(notified());
  EXPECT_EQ(notifications(), 1);
  EXPECT_EQ(manager_->accounts().size(), 1u);
  ASSERT_EQ(requestsTo("/token"), 1);
  EXPECT_EQ(formOf(server_.requests().back().body)["code"], "code-1");
  // After the exchange, a replay finds nothing to complete.
  exchange(redirect("code-1"));
  platform::EventLoop::main().sync([] {});
  EXPECT_EQ(notifications(), 1);
}

TEST_F(OAuthSignInTest, AuthorizationURLIsHttpsOrLoopbackWithAFreshStateAndPkcePerSignIn) {
  auto configure = [this](const std::string& endpoint) {
    auto configuration = withIssuer("https://accounts.example.test");
    configuration.authorizationEndpoint = endpoint;
    configuration.tokenEndpoint = "https://accounts.example.test/token";
    configuration.deobfuscate = [](std::string_view text) { return std::string(text.rbegin(), text.rend()); };
    makeManager(configuration);
  };
  for (const auto& [endpoint, allowed] : std::vector<std::pair<std::string, bool>>{
           {"http://accounts.example.test/authorize", false},
           {"file:///etc/passwd", false},
           {"javascript://accounts.example.test/%0aalert(1)", false},
           {"http://127.0.0.1:9/authorize", true}}) {
    SCOPED_TRACE(endpoint);
    configure(endpoint);
    EXPECT_EQ(authorizationURL().has_value(), allowed);
  }
  {
    std::lock_guard lock(mutex_);
    authorizationEndpoint_ = "http://accounts.example.test/authorize";
  }
  makeManager(discovered());
  EXPECT_EQ(authorizationURL(), std::nullopt) << "discovery is held to the same rule";

  configure("https://accounts.example.test/authorize?tenant=7");
  auto queryOf = [this] {
    auto url = authorizationURL().value_or("?");
    return formOf(url.substr(url.find('?') + 1));
  };
  auto query = queryOf();
  EXPECT_EQ(query["tenant"], "7") << "the endpoint's own query stays";
  EXPECT_EQ(query["client_id"], "di-tneilc") << "de-obfuscated";
  EXPECT_EQ(query["code_challenge_method"], "S256");
  EXPECT_GE(query["state"].size(), 43u);
  EXPECT_FALSE(query["nonce"].empty());
  EXPECT_EQ(query.count("client_secret"), 0u);

  auto again = queryOf();
  EXPECT_NE(again["state"], query["state"]);
  EXPECT_NE(again["code_challenge"], query["code_challenge"]);
  EXPECT_NE(again["nonce"], query["nonce"]);

  credentials_.state = "host-state";
  EXPECT_EQ(queryOf()["state"], "host-state");
}

TEST_F(OAuthSignInTest, ExpiredTokensAreRefreshedUntilTheServiceRefuses) {
  answerTokens([this](const auto& form) {
    if (form.at("grant_type") == "refresh_token") {
      EXPECT_EQ(form.at("refresh_token"), "refresh-1");
      return Response{200, R"({"access_token":"access-2","token_type":"Bearer","expires_in":60})"};
    }
    return tokens([](auto&, auto& response) { response["expires_in"] = 0; });
  });
  ASSERT_TRUE(signIn());
  EXPECT_TRUE(account_->tokens().accessTokenExpired());

  ASSERT_TRUE(refresh());
  EXPECT_EQ(account_->token(), "access-2");
  EXPECT_EQ(account_->refreshToken(), "refresh-1") << "kept when the answer has none";
  EXPECT_FALSE(account_->tokens().accessTokenExpired());
  auto stored = restarted();
  EXPECT_EQ(stored->storeFile(), scratch_.path() / "com.example.notes" / "accounts.json");
  ASSERT_EQ(stored->accounts().size(), 1u);
  EXPECT_EQ(stored->accounts()[0]->token(), "access-2") << "the renewed token is stored";
  EXPECT_NE(stored->accounts()[0]->webServiceAuthorizer(), nullptr);

  answerTokens([](const auto&) { return Response{400, R"({"error":"invalid_grant"})"}; });
  EXPECT_FALSE(refresh()) << "refused";
  ASSERT_TRUE(notified());
  EXPECT_TRUE(manager_->accounts().empty()) << "a refused refresh signs out";
  EXPECT_EQ(account_->token(), std::nullopt);
  EXPECT_EQ(requestsTo("/revoke"), 0) << "a refused refresh token is not revoked";
}

TEST_F(OAuthSignInTest, RemovingAnAccountRevokesItsRefreshTokenWithoutWaiting) {
  answerTokens([this](const auto&) { return tokens(); });
  ASSERT_TRUE(signIn());
  manager_->addAccount(account_);
  EXPECT_EQ(manager_->accounts().size(), 1u) << "the same account again replaces itself";
  auto before = std::chrono::steady_clock::now();
  manager_->removeAccount(account_);
  EXPECT_LT(std::chrono::steady_clock::now() - before, 1s) << "the service answers after 1.5 s";
  EXPECT_TRUE(manager_->accounts().empty());
  EXPECT_TRUE(restarted()->accounts().empty());
  EXPECT_EQ(account_->token(), std::nullopt) << "the removed account forgets its tokens";
  ASSERT_TRUE(server_.waitForRequest("/revoke", 5s));
  auto form = formOf(server_.requests().back().body);
  EXPECT_EQ(form["token"], "refresh-1");
  EXPECT_EQ(form["token_type_hint"], "refresh_token");
  EXPECT_EQ(server_.requests().back().authorization.rfind("Basic ", 0), 0u) << "the client authenticates";
}

// The building blocks: encodings, loopback hosts and JWT claims.
using namespace detail;

TEST(OAuthSupportTest, Base64UrlRoundTripsEveryLengthAndRejectsForeignCharacters) {
  std::string bytes;
  for (int i = 0; i < 40; ++i) {
    auto encoded = base64UrlEncode(bytes);
    EXPECT_EQ(encoded.find_first_of("+/="), std::string::npos);
    EXPECT_EQ(base64UrlDecode(encoded), bytes);
    bytes += static_cast<char>(i * 37 + 250);
  }
  EXPECT_EQ(base64Encode("\xfb\xff"), "+/8=");
  EXPECT_EQ(base64UrlEncode("\xfb\xff"), "-_8");
  EXPECT_EQ(base64UrlDecode("-_8="), "\xfb\xff");
  EXPECT_EQ(base64UrlDecode("+/8"), std::nullopt);
  EXPECT_EQ(base64UrlDecode("abcde"), std::nullopt);
}

TEST(OAuthSupportTest, FormEncodingEscapesEverythingButUnreservedCharacters) {
  EXPECT_EQ(formEncode({{"grant_type", "authorization_code"}, {"code", "a b+c&d=e/é"}}),
            "grant_type=authorization_code&code=a+b%2Bc%26d%3De%2F%C3%A9");
  EXPECT_EQ(formEncodeComponent("id:with~colon"), "id%3Awith%7Ecolon");
}

TEST(OAuthSupportTest, OnlyLoopbackHostsCountAsLoopback) {
  EXPECT_TRUE(platform::isLoopbackUrl("http://127.3.2.1/token"));
  EXPECT_TRUE(platform::isLoopbackUrl("http://[::1]:9000/"));
  EXPECT_TRUE(platform::isLoopbackUrl("http://LocalHost/"));
  EXPECT_FALSE(platform::isLoopbackUrl("http://128.0.0.1/"));
  EXPECT_FALSE(platform::isLoopbackUrl("http://localhost.example.test/"));
  EXPECT_FALSE(platform::isLoopbackUrl("http://127.0.0.1.example.test/"));
}

TEST(OAuthSupportTest, JwtClaimsNeedThreePartsAndAnObject) {
  EXPECT_EQ(jwtClaims("only.two"), std::nullopt);
  EXPECT_EQ(jwtClaims("a." + base64UrlEncode("[1]") + ".b"), std::nullopt);
}

}  // namespace
}  // namespace vantor::account
