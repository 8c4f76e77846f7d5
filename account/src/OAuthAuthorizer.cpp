#include "OAuthAuthorizer.hpp"

#include <algorithm>
#include <boost/json/parse.hpp>
#include <boost/url/parse.hpp>
#include <boost/url/url.hpp>
#include <chrono>

#include "HttpClient.hpp"
#include "OAuthSupport.hpp"
#include "TokenEndpoint.hpp"
#include "vantor/account/QMAccountConstants.hpp"
#include "vantor/account/QMNotificationCenter.hpp"
#include "vantor/platform/EventLoop.hpp"
#include "vantor/util/LogAccounts.hpp"

namespace vantor::account::detail {

namespace json = boost::json;
using platform::EventLoop;
using util::logAccounts;

namespace {

// Clock skew tolerated when checking an ID token's expiry.
constexpr auto clockLeeway = std::chrono::minutes(2);

std::optional<std::string> textField(const json::object& object, std::string_view key) {
  const auto* value = object.if_contains(key);
  if (value == nullptr || !value->is_string()) {
    return std::nullopt;
  }
  return std::string(value->as_string());
}

void postAccountDidChange() {
  EventLoop::main().post([] {
    QMNotificationCenter::defaultCenter().post(
        std::string(QMAccountConstants::QuelmoConnect::accountDidChangeNotificationString));
  });
}

// The ID token's audiences; none when `aud` is neither a string nor an array
// of strings.
std::optional<std::vector<std::string>> audiencesOf(const json::object& claims) {
  const auto* audience = claims.if_contains("aud");
  if (audience != nullptr && audience->is_string()) {
    return std::vector<std::string>{std::string(audience->as_string())};
  }
  if (audience == nullptr || !audience->is_array()) {
    return std::nullopt;
  }
  std::vector<std::string> list;
  for (const auto& entry : audience->as_array()) {
    if (!entry.is_string()) {
      return std::nullopt;
    }
    list.emplace_back(entry.as_string());
  }
  return list;
}

}  // namespace

// The signature is not checked: the token came straight from the token
// endpoint over a verified connection, which OpenID Connect Core (section
// 3.1.3.7) accepts in its place.
std::optional<std::string> idTokenProblem(const json::object& claims, const std::string& issuer,
                                          const std::string& clientId,
                                          const std::optional<std::string>& nonce) {
  if (textField(claims, "iss") != issuer) {
    return "the ID token comes from another issuer";
  }
  auto audiences = audiencesOf(claims);
  if (!audiences || std::find(audiences->begin(), audiences->end(), clientId) == audiences->end()) {
    return "the ID token is meant for another client";
  }
  const auto* party = claims.if_contains("azp");
  if ((audiences->size() > 1 || party != nullptr) && textField(claims, "azp") != clientId) {
    return "the ID token was issued to another party";
  }
  const auto* expiry = claims.if_contains("exp");
  auto expiresAt = expiry ? unixTimeIn(*expiry) : std::nullopt;
  if (!expiresAt || *expiresAt + clockLeeway < std::chrono::system_clock::now()) {
    return "the ID token has expired or names no valid expiry";
  }
  if (nonce && textField(claims, "nonce") != nonce) {
    return "the ID token does not belong to this sign-in";
  }
  if (auto subject = textField(claims, "sub"); !subject || subject->empty()) {
    return "the ID token names no subject";
  }
  return std::nullopt;
}

UserinfoResponse readUserinfoResponse(const HttpOutcome& outcome,
                                      const std::optional<std::string>& knownSubject) {
  UserinfoResponse answer;
  if (!outcome.succeeded() || outcome.status != 200) {
    answer.problem = "the userinfo endpoint failed: " +
                     (outcome.succeeded() ? "status " + std::to_string(outcome.status) : outcome.failure);
    return answer;
  }
  boost::system::error_code error;
  auto document = json::parse(outcome.body, error);
  if (error || !document.is_object()) {
    answer.problem = "the userinfo endpoint answered no JSON object";
    return answer;
  }
  auto subject = textField(document.as_object(), "sub");
  // OpenID Connect Core, section 5.3.4: a different subject means the
  // answer is not about this user.
  if (!subject || subject->empty() || (knownSubject && subject != knownSubject)) {
    answer.problem = "the userinfo answer is about another user";
    return answer;
  }
  answer.subject = std::move(subject);
  answer.email = textField(document.as_object(), "email");
  return answer;
}

namespace {

// The token response and, when needed, the userinfo request of one code
// exchange, on the main loop. Ends by posting the account-did-change
// notification, whatever the outcome; an exception on the way ends it as a
// failure, never as silence.
class TokenExchange : public std::enable_shared_from_this<TokenExchange> {
 public:
  TokenExchange(std::shared_ptr<QMOAuthAccountManager> manager, std::shared_ptr<QMAccount> account,
                std::shared_ptr<OAuthAuthorizer> authorizer, SignIn signIn, bool addToStore,
                HttpClientOptions options)
      : manager_(std::move(manager)),
        account_(std::move(account)),
        authorizer_(std::move(authorizer)),
        signIn_(std::move(signIn)),
        addToStore_(addToStore),
        options_(std::move(options)) {}

  void start(const std::string& code) {
    const auto& configuration = manager_->configuration();
    clientId_ = deobfuscated(configuration, signIn_.credentials.obfuscatedClientId);
    auto request = clientRequest(signIn_.endpoints.token,
                                 {{"grant_type", "authorization_code"},
                                  {"code", code},
                                  {"redirect_uri", signIn_.credentials.redirectURI},
                                  {"code_verifier", signIn_.codeVerifier}},
                                 configuration, signIn_.credentials);
    send(std::move(request), &TokenExchange::onToken);
  }

 private:
  using Step = void (TokenExchange::*)(const HttpOutcome&);

  void send(HttpRequest request, Step step) {
    sendHttpRequest(EventLoop::main().context(), std::move(request), options_,
                    [self = shared_from_this(), step](const HttpOutcome& outcome) {
                      try {
                        ((*self).*step)(outcome);
                      } catch (const std::exception& e) {
                        self->fail(std::string("the answer could not be read: ") + e.what());
                      }
                    });
  }

  void onToken(const HttpOutcome& outcome) {
    auto response = readTokenResponse(outcome, std::chrono::system_clock::now());
    if (response.problem) {
      return fail(*response.problem);
    }
    tokens_ = std::move(response.tokens);
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

  // Checks the ID token and takes the identity from it; returns what is
  // wrong, if anything. Without a configured issuer there is nothing to
  // check it against, so it is kept but says nothing about the user.
  std::optional<std::string> readIdToken(const std::string& idToken) {
    auto claims = jwtClaims(idToken);
    if (!claims) {
      return "the ID token cannot be read";
    }
    if (!signIn_.endpoints.issuer) {
      logAccounts().warning("No issuer is configured to check the ID token against; it is not used");
      return std::nullopt;
    }
    if (auto problem = idTokenProblem(*claims, *signIn_.endpoints.issuer, clientId_, signIn_.nonce)) {
      return problem;
    }
    subject_ = textField(*claims, "sub");
    email_ = textField(*claims, "email");
    return std::nullopt;
  }

  void requestUserinfo() {
    HttpRequest request{"GET", *signIn_.endpoints.userinfo, {}, {}};
    request.headers.emplace_back("Accept", "application/json");
    request.headers.emplace_back("Authorization", "Bearer " + *tokens_.accessToken);
    send(std::move(request), &TokenExchange::onUserinfo);
  }

  void onUserinfo(const HttpOutcome& outcome) {
    auto answer = readUserinfoResponse(outcome, subject_);
    if (answer.problem) {
      return fail(*answer.problem);
    }
    subject_ = std::move(answer.subject);
    if (answer.email) {
      email_ = std::move(answer.email);
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
    end();
  }

  void fail(const std::string& reason) {
    logAccounts().error("Signing in to " + manager_->configuration().serviceName +
                        " failed: " + reason);
    end();
  }

  void end() {
    if (std::exchange(ended_, true)) {
      return;
    }
    authorizer_->exchangeEnded();
    postAccountDidChange();
  }

  const std::shared_ptr<QMOAuthAccountManager> manager_;
  const std::shared_ptr<QMAccount> account_;
  const std::shared_ptr<OAuthAuthorizer> authorizer_;
  const SignIn signIn_;
  const bool addToStore_;
  const HttpClientOptions options_;
  std::string clientId_;
  QMAccountTokens tokens_;
  std::optional<std::string> subject_;
  std::optional<std::string> email_;
  bool ended_ = false;
};

}  // namespace

bool redirectStateMatches(const std::string& redirectURL, const std::string& expected) {
  auto url = boost::urls::parse_uri_reference(redirectURL);
  // An empty query names no state; Boost.URL 1.81 also reads past the end
  // when it walks the items of an empty query before a fragment ("?#").
  if (!url || url->encoded_query().empty()) {
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

void OAuthAuthorizer::authorizationURL(URLCompletion completion) {
  endpoints_->resolve([self = shared_from_this(), completion = std::move(completion)](
                          const std::optional<Endpoints>& endpoints) { completion(self->startSignIn(endpoints)); });
}

std::optional<std::string> OAuthAuthorizer::startSignIn(const std::optional<Endpoints>& endpoints) {
  auto manager = manager_.lock();
  auto account = account_.lock();
  if (!manager || !account || !endpoints) {
    return std::nullopt;
  }
  const auto& configuration = manager->configuration();
  auto credentials =
      registeredCredentials(*manager, account->classTypeIdentifier(), configuration.serviceName);
  if (!credentials) {
    return std::nullopt;
  }
  auto url = platform::parseEndpointUrl(endpoints->authorization);
  if (!url) {
    logAccounts().error("The authorization endpoint is not a valid URL");
    return std::nullopt;
  }
  SignIn signIn{credentials->redirectURIState.value_or(randomToken(32)), randomToken(32), std::nullopt,
                *endpoints, *credentials};
  const auto& scopes = configuration.scopes;
  if (std::find(scopes.begin(), scopes.end(), "openid") != scopes.end()) {
    signIn.nonce = randomToken(16);
  }
  std::string scope;
  for (const auto& item : scopes) {
    scope += (scope.empty() ? "" : " ") + item;
  }
  boost::urls::url authorization(*url);
  auto params = authorization.params();
  params.append({"response_type", "code"});
  params.append({"client_id", deobfuscated(configuration, credentials->obfuscatedClientId)});
  params.append({"redirect_uri", credentials->redirectURI});
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
  auto manager = manager_.lock();
  auto account = account_.lock();
  const std::string serviceName = manager ? manager->configuration().serviceName : "the service";
  std::optional<SignIn> signIn;
  {
    // Any program may open the redirect URL, and the system may deliver it
    // twice: only a redirect with the pending sign-in's `state` is taken, and
    // anything else leaves the sign-in waiting for the genuine one. A code is
    // exchanged at most once.
    std::lock_guard lock(mutex_);
    if (!pending_) {
      logAccounts().warning("A redirect from " + serviceName + " was ignored: " +
                            (exchanging_ ? "its sign-in is already being completed"
                                         : "no sign-in is waiting for it"));
      return;
    }
    if (!redirectStateMatches(redirectURL, pending_->state)) {
      logAccounts().warning("A redirect from " + serviceName +
                            " was ignored: its state is not the one this sign-in sent");
      return;
    }
    signIn = std::exchange(pending_, std::nullopt);
    exchanging_ = true;
  }
  if (!manager || !account) {
    exchangeEnded();
    logAccounts().error("Signing in to " + serviceName + " failed: the account is gone");
    postAccountDidChange();
    return;
  }
  auto exchange = std::make_shared<TokenExchange>(manager, account, shared_from_this(), std::move(*signIn),
                                                  addToStore, endpoints_->httpOptions());
  exchange->start(code);
}

void OAuthAuthorizer::exchangeEnded() {
  std::lock_guard lock(mutex_);
  exchanging_ = false;
}

void OAuthAuthorizer::refreshTokens(RefreshCompletion completion) {
  {
    std::lock_guard lock(mutex_);
    refreshWaiting_.push_back(std::move(completion));
    if (refreshWaiting_.size() > 1) {
      return;  // one refresh at a time: a rotated refresh token works once
    }
  }
  endpoints_->resolve([self = shared_from_this()](const std::optional<Endpoints>& endpoints) {
    self->refreshWith(endpoints);
  });
}

void OAuthAuthorizer::refreshWith(const std::optional<Endpoints>& endpoints) {
  auto manager = manager_.lock();
  auto account = account_.lock();
  if (!manager || !account || !endpoints) {
    return refreshEnded(false);
  }
  const auto& configuration = manager->configuration();
  auto signOut = [manager, account, this](const std::string& reason) {
    logAccounts().error("Signed out of " + manager->configuration().serviceName + ": " + reason);
    // Forgotten first, so that removing the account revokes nothing.
    account->setTokens({});
    manager->removeAccount(account);
    postAccountDidChange();
    refreshEnded(false);
  };
  auto refreshToken = account->refreshToken();
  if (!refreshToken) {
    return signOut("the access token expired and there is no refresh token");
  }
  auto credentials =
      registeredCredentials(*manager, account->classTypeIdentifier(), configuration.serviceName);
  if (!credentials) {
    return refreshEnded(false);
  }
  // RFC 6749, section 6.
  auto request = clientRequest(endpoints->token, {{"grant_type", "refresh_token"}, {"refresh_token", *refreshToken}},
                               configuration, *credentials);
  sendHttpRequest(EventLoop::main().context(), std::move(request), endpoints_->httpOptions(),
                  [self = shared_from_this(), manager, account, signOut](const HttpOutcome& outcome) {
                    auto response = readTokenResponse(outcome, std::chrono::system_clock::now());
                    if (response.refused) {
                      return signOut("the service refused the refresh token: " + *response.problem);
                    }
                    if (response.problem) {
                      logAccounts().error("Renewing the access token failed: " + *response.problem);
                      return self->refreshEnded(false);
                    }
                    auto previous = account->tokens();
                    auto& tokens = response.tokens;
                    // Section 6: the refresh token may stay the same.
                    if (!tokens.refreshToken) {
                      tokens.refreshToken = previous.refreshToken;
                    }
                    if (!tokens.idToken) {
                      tokens.idToken = previous.idToken;
                    }
                    account->setTokens(std::move(tokens));
                    // Stored again only when it still is stored (not signed
                    // out meanwhile).
                    auto stored = manager->accounts();
                    if (std::any_of(stored.begin(), stored.end(),
                                    [&account](const auto& entry) { return entry == account; })) {
                      manager->addAccount(account);
                    }
                    self->refreshEnded(true);
                  });
}

void OAuthAuthorizer::refreshEnded(bool refreshed) {
  std::vector<RefreshCompletion> waiting;
  {
    std::lock_guard lock(mutex_);
    waiting.swap(refreshWaiting_);
  }
  for (auto& completion : waiting) {
    completion(refreshed);
  }
}

}  // namespace vantor::account::detail
