#include "OAuthAuthorizer.hpp"

#include <algorithm>
#include <boost/json/parse.hpp>
#include <boost/url/parse.hpp>
#include <boost/url/url.hpp>
#include <chrono>

#include "HttpClient.hpp"
#include "OAuthSupport.hpp"
#include "vantor/account/QMAccountConstants.hpp"
#include "vantor/account/QMNotificationCenter.hpp"
#include "vantor/platform/EventLoop.hpp"
#include "vantor/util/LogAccounts.hpp"

namespace vantor::account::detail {

namespace json = boost::json;
using platform::EventLoop;
using util::logAccounts;
using ClientAuthentication = QMOAuthServiceConfiguration::ClientAuthentication;

namespace {

// Clock skew tolerated when checking an ID token's expiry.
constexpr auto clockLeeway = std::chrono::minutes(5);

std::optional<std::string> textField(const json::object& object, std::string_view key) {
  const auto* value = object.if_contains(key);
  if (value == nullptr || !value->is_string()) {
    return std::nullopt;
  }
  return std::string(value->as_string());
}

std::string deobfuscated(const QMOAuthServiceConfiguration& configuration, std::string_view text) {
  return configuration.deobfuscate ? configuration.deobfuscate(text) : std::string(text);
}

void postAccountDidChange() {
  EventLoop::main().post([] {
    QMNotificationCenter::defaultCenter().post(
        std::string(QMAccountConstants::QuelmoConnect::accountDidChangeNotificationString));
  });
}

bool audienceContains(const json::value* audience, const std::string& clientId) {
  if (audience == nullptr) {
    return false;
  }
  if (audience->is_string()) {
    return audience->as_string() == clientId;
  }
  if (audience->is_array()) {
    const auto& list = audience->as_array();
    return std::any_of(list.begin(), list.end(), [&clientId](const json::value& entry) {
      return entry.is_string() && entry.as_string() == clientId;
    });
  }
  return false;
}

// The token response and, when needed, the userinfo request of one code
// exchange, on the main loop. Ends by posting the account-did-change
// notification, whatever the outcome.
class TokenExchange : public std::enable_shared_from_this<TokenExchange> {
 public:
  TokenExchange(std::shared_ptr<QMOAuthAccountManager> manager, std::shared_ptr<QMAccount> account,
                SignIn signIn, bool addToStore, HttpClientOptions options)
      : manager_(std::move(manager)),
        account_(std::move(account)),
        signIn_(std::move(signIn)),
        addToStore_(addToStore),
        options_(std::move(options)) {}

  void start(const std::string& code) {
    const auto& configuration = manager_->configuration();
    clientId_ = deobfuscated(configuration, signIn_.obfuscatedClientId);
    FormFields fields{{"grant_type", "authorization_code"},
                      {"code", code},
                      {"redirect_uri", signIn_.redirectURI},
                      {"code_verifier", signIn_.codeVerifier}};
    HttpRequest request{"POST", signIn_.endpoints.token, {}, {}};
    request.headers.emplace_back("Content-Type", "application/x-www-form-urlencoded");
    request.headers.emplace_back("Accept", "application/json");
    switch (configuration.clientAuthentication) {
      case ClientAuthentication::clientSecretBasic:
        // RFC 6749, section 2.3.1: both parts form-encoded before Basic.
        request.headers.emplace_back(
            "Authorization",
            "Basic " + base64Encode(formEncodeComponent(clientId_) + ":" +
                                    formEncodeComponent(deobfuscated(
                                        configuration, signIn_.obfuscatedClientSecret))));
        break;
      case ClientAuthentication::clientSecretPost:
        fields.emplace_back("client_id", clientId_);
        fields.emplace_back("client_secret",
                            deobfuscated(configuration, signIn_.obfuscatedClientSecret));
        break;
      case ClientAuthentication::none:
        fields.emplace_back("client_id", clientId_);
        break;
    }
    request.body = formEncode(fields);
    sendHttpRequest(EventLoop::main().context(), std::move(request), options_,
                    [self = shared_from_this()](HttpOutcome outcome) { self->onToken(std::move(outcome)); });
  }

 private:
  void onToken(HttpOutcome outcome) {
    if (!outcome.succeeded()) {
      return fail("the token endpoint could not be reached: " + outcome.failure);
    }
    boost::system::error_code error;
    auto document = json::parse(outcome.body, error);
    const auto* response = !error && document.is_object() ? &document.as_object() : nullptr;
    if (outcome.status != 200) {
      // The OAuth error code names the cause without revealing anything.
      auto code = response ? textField(*response, "error") : std::nullopt;
      return fail("the token endpoint answered " + std::to_string(outcome.status) +
                  (code ? " (" + *code + ")" : ""));
    }
    if (response == nullptr) {
      return fail("the token endpoint answered no JSON object");
    }
    tokens_.accessToken = textField(*response, "access_token");
    tokens_.tokenType = textField(*response, "token_type");
    tokens_.refreshToken = textField(*response, "refresh_token");
    tokens_.idToken = textField(*response, "id_token");
    if (const auto* expiresIn = response->if_contains("expires_in"); expiresIn && expiresIn->is_number()) {
      tokens_.expiresAt = std::chrono::system_clock::now() +
                          std::chrono::seconds(expiresIn->to_number<std::int64_t>());
    }
    if (!tokens_.accessToken) {
      return fail("the token response has no access token");
    }
    if (tokens_.idToken) {
      if (auto problem = readIdToken(*tokens_.idToken)) {
        return fail(*problem);
      }
    }
    if ((!email_ || !subject_) && signIn_.endpoints.userinfo) {
      return requestUserinfo();
    }
    finishIdentity();
  }

  // Checks the ID token's claims and takes the identity from it; returns what
  // is wrong, if anything. The token came straight from the token endpoint
  // over a verified connection, which stands in for its signature (OpenID
  // Connect Core, section 3.1.3.7).
  std::optional<std::string> readIdToken(const std::string& idToken) {
    auto claims = jwtClaims(idToken);
    if (!claims) {
      return "the ID token cannot be read";
    }
    if (signIn_.endpoints.issuer && textField(*claims, "iss") != signIn_.endpoints.issuer) {
      return "the ID token comes from another issuer";
    }
    if (!audienceContains(claims->if_contains("aud"), clientId_)) {
      return "the ID token is meant for another client";
    }
    const auto* expiry = claims->if_contains("exp");
    if (expiry == nullptr || !expiry->is_number() ||
        std::chrono::system_clock::time_point(std::chrono::seconds(expiry->to_number<std::int64_t>())) +
                clockLeeway <
            std::chrono::system_clock::now()) {
      return "the ID token has expired";
    }
    if (signIn_.nonce && textField(*claims, "nonce") != signIn_.nonce) {
      return "the ID token does not belong to this sign-in";
    }
    subject_ = textField(*claims, "sub");
    email_ = textField(*claims, "email");
    if (!subject_) {
      return "the ID token names no subject";
    }
    return std::nullopt;
  }

  void requestUserinfo() {
    HttpRequest request{"GET", *signIn_.endpoints.userinfo, {}, {}};
    request.headers.emplace_back("Accept", "application/json");
    request.headers.emplace_back("Authorization", "Bearer " + *tokens_.accessToken);
    sendHttpRequest(EventLoop::main().context(), std::move(request), options_,
                    [self = shared_from_this()](HttpOutcome outcome) { self->onUserinfo(std::move(outcome)); });
  }

  void onUserinfo(HttpOutcome outcome) {
    if (!outcome.succeeded() || outcome.status != 200) {
      return fail("the userinfo endpoint failed: " +
                  (outcome.succeeded() ? "status " + std::to_string(outcome.status) : outcome.failure));
    }
    boost::system::error_code error;
    auto document = json::parse(outcome.body, error);
    if (error || !document.is_object()) {
      return fail("the userinfo endpoint answered no JSON object");
    }
    auto subject = textField(document.as_object(), "sub");
    // OpenID Connect Core, section 5.3.4: a different subject means the
    // answer is not about this user.
    if (!subject || (subject_ && subject != subject_)) {
      return fail("the userinfo answer is about another user");
    }
    subject_ = subject;
    if (auto email = textField(document.as_object(), "email")) {
      email_ = email;
    }
    finishIdentity();
  }

  void finishIdentity() {
    if (!subject_) {
      return fail("the service did not say who signed in");
    }
    account_->setIdentity(subject_, email_);
    account_->setTokens(tokens_);
    if (addToStore_) {
      manager_->addAccount(account_);
    }
    logAccounts().info("Signed in to " + manager_->configuration().serviceName);
    postAccountDidChange();
  }

  void fail(const std::string& reason) {
    logAccounts().error("Signing in to " + manager_->configuration().serviceName +
                        " failed: " + reason);
    postAccountDidChange();
  }

  const std::shared_ptr<QMOAuthAccountManager> manager_;
  const std::shared_ptr<QMAccount> account_;
  const SignIn signIn_;
  const bool addToStore_;
  const HttpClientOptions options_;
  std::string clientId_;
  QMAccountTokens tokens_;
  std::optional<std::string> subject_;
  std::optional<std::string> email_;
};

}  // namespace

bool redirectStateMatches(const std::string& redirectURL, const std::string& expected) {
  auto url = boost::urls::parse_uri_reference(redirectURL);
  if (!url) {
    return false;
  }
  int matches = 0;
  int states = 0;
  for (auto param : url->params(boost::urls::encoding_opts(false, false, false))) {
    if (param.key == "state") {
      ++states;
      matches += param.has_value && param.value == expected ? 1 : 0;
    }
  }
  return states == 1 && matches == 1;
}

std::optional<std::string> OAuthAuthorizer::authorizationURL() {
  auto manager = manager_.lock();
  if (!manager) {
    return std::nullopt;
  }
  auto* provider = manager->delegateOfWebServiceRequirements();
  if (provider == nullptr) {
    logAccounts().error("No client credentials are registered for signing in");
    return std::nullopt;
  }
  auto account = account_.lock();
  std::optional<QMWebServiceClientCredentials> credentials;
  for (auto& candidate : provider->webServiceClientCredentials()) {
    if (candidate.serviceProvider == QMWebServiceProvider::quelmoConnect ||
        (account && candidate.serviceProviderClassTypeIdentifier == account->classTypeIdentifier())) {
      credentials = std::move(candidate);
      break;
    }
  }
  if (!credentials) {
    logAccounts().error("No client credentials are registered for " +
                        manager->configuration().serviceName);
    return std::nullopt;
  }
  auto endpoints = endpoints_->resolve();
  if (!endpoints) {
    return std::nullopt;
  }
  auto url = parseEndpointURL(endpoints->authorization);
  if (!url) {
    logAccounts().error("The authorization endpoint is not a valid URL");
    return std::nullopt;
  }
  const auto& configuration = manager->configuration();
  SignIn signIn;
  signIn.state = credentials->redirectURIState.value_or(randomToken(32));
  signIn.codeVerifier = randomToken(32);
  const auto& scopes = configuration.scopes;
  if (std::find(scopes.begin(), scopes.end(), "openid") != scopes.end()) {
    signIn.nonce = randomToken(16);
  }
  signIn.endpoints = *endpoints;
  signIn.obfuscatedClientId = credentials->obfuscatedClientId;
  signIn.obfuscatedClientSecret = credentials->obfuscatedClientSecret;
  signIn.redirectURI = credentials->redirectURI;

  std::string scope;
  for (const auto& item : scopes) {
    scope += (scope.empty() ? "" : " ") + item;
  }
  boost::urls::url authorization(*url);
  auto params = authorization.params();
  params.append({"response_type", "code"});
  params.append({"client_id", deobfuscated(configuration, signIn.obfuscatedClientId)});
  params.append({"redirect_uri", signIn.redirectURI});
  params.append({"scope", scope});
  params.append({"state", signIn.state});
  params.append({"code_challenge", pkceChallenge(signIn.codeVerifier)});
  params.append({"code_challenge_method", "S256"});
  if (signIn.nonce) {
    params.append({"nonce", *signIn.nonce});
  }
  for (const auto& [name, value] : configuration.additionalAuthorizationParameters) {
    params.append({name, value});
  }
  std::lock_guard lock(mutex_);
  pending_ = std::move(signIn);
  return std::string(authorization.buffer());
}

void OAuthAuthorizer::exchangeCode(const std::string& code, bool addToStore,
                                   const std::string& redirectURL) {
  std::optional<SignIn> signIn;
  {
    // A code is exchanged at most once per sign-in: a replayed redirect finds
    // nothing pending.
    std::lock_guard lock(mutex_);
    signIn = std::exchange(pending_, std::nullopt);
  }
  auto manager = manager_.lock();
  auto account = account_.lock();
  const std::string serviceName = manager ? manager->configuration().serviceName : "the service";
  auto failNow = [&serviceName](const std::string& reason) {
    logAccounts().error("Signing in to " + serviceName + " failed: " + reason);
    postAccountDidChange();
  };
  if (!manager || !account) {
    return failNow("the account is gone");
  }
  if (!signIn) {
    return failNow("no sign-in is waiting for this redirect");
  }
  if (!redirectStateMatches(redirectURL, signIn->state)) {
    return failNow("the redirect's state does not match the one sent");
  }
  auto exchange = std::make_shared<TokenExchange>(manager, account, std::move(*signIn), addToStore,
                                                  endpoints_->httpOptions());
  exchange->start(code);
}

}  // namespace vantor::account::detail
