// The sign-in's inputs from outside: the redirect URL that the service
// sends the user back with, and what the token and userinfo endpoints
// answer. The first byte picks the input:
//
//   r<url>                          a redirect: its state is checked, and
//                                   it is handed to the sign-in controller
//   t<status>\n<body>               a token endpoint answer (its ID token is
//                                   checked as a code exchange would)
//   u<status>\n<subject>\n<body>    a userinfo answer; an empty subject line
//                                   means the ID token named nobody
//   c<claims>                       an ID token's claims, as JSON

#include <boost/json/parse.hpp>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "FuzzSupport.hpp"
#include "OAuthAuthorizer.hpp"
#include "OAuthSupport.hpp"
#include "TokenEndpoint.hpp"
#include "vantor/account/QMAccountFactory.hpp"
#include "vantor/account/QMAccountManager.hpp"
#include "vantor/account/QMQuelmoConnectAccount.hpp"
#include "vantor/account/QMQuelmoConnectController.hpp"
#include "vantor/account/QMWebServiceAuthorizer.hpp"
#include "vantor/account/QMWorkspace.hpp"

namespace vantor::account {
namespace {

using fuzz::violated;
using Controller = QMQuelmoConnectController;

constexpr const char* issuer = "https://id.fuzz.test";
constexpr const char* clientId = "fuzz-client";
constexpr const char* nonce = "fuzz-nonce";
constexpr const char* state = "fuzz-state";

class MemoryAccounts : public QMAccountManager {
 public:
  std::vector<std::shared_ptr<QMAccount>> accounts() const override { return {}; }
  void addAccount(std::shared_ptr<QMAccount>) override {}
  void removeAccount(const std::shared_ptr<QMAccount>&) override {}
};

// Makes the sign-in's accounts and is their authoriser. A code exchange
// only checks the redirect's state, as the real one does first, and never
// completes: the sign-in stays pending for the next input.
class PendingSignIn : public QMAccountFactory,
                      public QMWebServiceAuthorizer,
                      public std::enable_shared_from_this<PendingSignIn> {
 public:
  std::shared_ptr<QMAccount> createAccount(std::optional<boost::uuids::uuid>, std::uint32_t,
                                           QMWebServiceProvider) override {
    auto account = std::make_shared<QMQuelmoConnectAccount>("00000000-0000-0000-0000-000000000001");
    account->setServiceName("Quelmo Connect");
    account->setWebServiceAuthorizer(shared_from_this());
    return account;
  }
  void authorizationURL(URLCompletion completion) override {
    completion("https://id.fuzz.test/authorize?client_id=fuzz-client");
  }
  void exchangeCode(const std::string&, bool, const std::string& redirectURL) override {
    ++exchanges;
    (void)detail::redirectStateMatches(redirectURL, state);
  }
  void refreshTokens(RefreshCompletion completion) override { completion(false); }

  int exchanges = 0;
};

std::shared_ptr<PendingSignIn> signIn;

void setUpSignIn() {
  signIn = std::make_shared<PendingSignIn>();
  QMAccountManager::setShared(std::make_shared<MemoryAccounts>());
  QMAccountFactory::setShared(signIn);
  Controller::setClientId(clientId);
  Controller::setClientSecret("fuzz-secret");
  Controller::setRedirectURI("com.example.fuzz:/qmaccounts/quelmoconnect");
  Controller::setRedirectURIState(state);
  QMWorkspace::setOpener([](const std::string&) { return true; });
  Controller::shared().login([](const Controller::LoginResult&) {});
}

void redirect(std::string_view url) {
  (void)detail::redirectStateMatches(std::string(url), state);
  (void)Controller::isValidResponse(url);
  const int before = signIn->exchanges;
  try {
    Controller::shared().handleOAuthResponse(url);
  } catch (const QMQuelmoConnectControllerException& e) {
    if (e.error() == QMQuelmoConnectControllerError::notLoggedIn) {
      violated("a redirect ended the pending sign-in");
    }
    if (signIn->exchanges != before) {
      violated("a refused redirect still reached the code exchange");
    }
    return;
  }
  if (signIn->exchanges != before + 1) {
    violated("an accepted redirect did not reach the code exchange exactly once");
  }
}

// "<status>\n" at the front of `input`, taken off; 200 when there is none.
int takeStatus(std::string_view& input) {
  const auto end = input.find('\n');
  const auto digits = input.substr(0, end);
  int status = 0;
  if (end == std::string_view::npos || digits.empty() || digits.size() > 3) {
    return 200;
  }
  for (char c : digits) {
    if (c < '0' || c > '9') {
      return 200;
    }
    status = status * 10 + (c - '0');
  }
  input.remove_prefix(end + 1);
  return status;
}

void tokenAnswer(std::string_view input) {
  detail::HttpOutcome outcome;
  outcome.status = takeStatus(input);
  outcome.body = std::string(input);
  const auto now = std::chrono::system_clock::now();
  const auto answer = detail::readTokenResponse(outcome, now);
  if (answer.refused && outcome.status != 400 && outcome.status != 401) {
    violated("a token answer counts as refused without a 400 or 401");
  }
  if (answer.problem) {
    return;
  }
  if (!answer.tokens.accessToken || answer.tokens.accessToken->empty()) {
    violated("a token answer without an access token was taken");
  }
  if (answer.tokens.expiresAt && *answer.tokens.expiresAt < now) {
    violated("a token answer's lifetime ends before it was read");
  }
  if (answer.tokens.idToken) {
    if (auto claims = detail::jwtClaims(*answer.tokens.idToken)) {
      (void)detail::idTokenProblem(*claims, issuer, clientId, std::string(nonce));
    }
  }
}

void userinfoAnswer(std::string_view input) {
  detail::HttpOutcome outcome;
  outcome.status = takeStatus(input);
  const auto end = input.find('\n');
  std::optional<std::string> knownSubject;
  if (end != std::string_view::npos) {
    if (end > 0) {
      knownSubject.emplace(input.substr(0, end));
    }
    input.remove_prefix(end + 1);
  }
  outcome.body = std::string(input);
  const auto answer = detail::readUserinfoResponse(outcome, knownSubject);
  if (answer.problem) {
    return;
  }
  if (!answer.subject || answer.subject->empty() || (knownSubject && answer.subject != knownSubject)) {
    violated("a userinfo answer about nobody, or about another user, was taken");
  }
}

void idTokenClaims(std::string_view input) {
  boost::system::error_code error;
  auto claims = boost::json::parse(input, error);
  if (error || !claims.is_object()) {
    return;
  }
  (void)detail::idTokenProblem(claims.get_object(), issuer, clientId, std::string(nonce));
  (void)detail::idTokenProblem(claims.get_object(), issuer, clientId, std::nullopt);
}

}  // namespace
}  // namespace vantor::account

extern "C" int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/) {
  vantor::fuzz::useFuzzerThreadAsLoop();
  vantor::account::setUpSignIn();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size == 0) {
    return 0;
  }
  const std::string_view input(reinterpret_cast<const char*>(data) + 1, size - 1);
  switch (data[0]) {
    case 'r': vantor::account::redirect(input); break;
    case 't': vantor::account::tokenAnswer(input); break;
    case 'u': vantor::account::userinfoAnswer(input); break;
    case 'c': vantor::account::idTokenClaims(input); break;
    default: break;
  }
  vantor::fuzz::runReadyWork(100);
  return 0;
}
