#pragma once

#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include <boost/json/object.hpp>

#include "HttpClient.hpp"
#include "ServiceEndpoints.hpp"
#include "vantor/account/QMAccount.hpp"
#include "vantor/account/QMOAuthAccountManager.hpp"
#include "vantor/account/QMWebServiceAuthorizer.hpp"
#include "vantor/account/QMWebServiceClientCredentials.hpp"

namespace vantor::account::detail {

// What one sign-in sent in its authorization request, and needs again for
// the code exchange.
struct SignIn {
  std::string state;
  std::string codeVerifier;
  std::optional<std::string> nonce;
  Endpoints endpoints;
  QMWebServiceClientCredentials credentials;
};

// The authoriser of accounts made by QMOAuthAccountManager: authorization
// code flow with `state`, PKCE (S256) and, for OpenID Connect, `nonce`;
// refresh with the refresh token. Holds its manager and account weakly, so
// an account does not keep its manager alive. Thread safety: every member
// may be called from any thread.
class OAuthAuthorizer : public QMWebServiceAuthorizer,
                        public std::enable_shared_from_this<OAuthAuthorizer> {
 public:
  OAuthAuthorizer(std::weak_ptr<QMOAuthAccountManager> manager,
                  std::shared_ptr<ServiceEndpoints> endpoints, std::weak_ptr<QMAccount> account)
      : manager_(std::move(manager)), endpoints_(std::move(endpoints)), account_(std::move(account)) {}

  void authorizationURL(URLCompletion completion) override;
  void exchangeCode(const std::string& code, bool addToStore,
                    const std::string& redirectURL) override;
  void refreshTokens(RefreshCompletion completion) override;

  // Called by the exchange when it has ended, whatever the outcome.
  void exchangeEnded();

 private:
  std::optional<std::string> startSignIn(const std::optional<Endpoints>& endpoints);
  void refreshWith(const std::optional<Endpoints>& endpoints);
  void refreshEnded(bool refreshed);

  const std::weak_ptr<QMOAuthAccountManager> manager_;
  const std::shared_ptr<ServiceEndpoints> endpoints_;
  const std::weak_ptr<QMAccount> account_;
  std::mutex mutex_;
  std::optional<SignIn> pending_;
  bool exchanging_ = false;
  std::vector<RefreshCompletion> refreshWaiting_;
};

// True when `redirectURL` carries exactly one `state`, equal to `expected`.
bool redirectStateMatches(const std::string& redirectURL, const std::string& expected);

// What is wrong with an ID token's claims for a sign-in of `clientId` at
// `issuer` that sent `nonce` (none: it sent none), if anything.
std::optional<std::string> idTokenProblem(const boost::json::object& claims, const std::string& issuer,
                                          const std::string& clientId,
                                          const std::optional<std::string>& nonce);

// What a userinfo endpoint answered about the user who signed in.
struct UserinfoResponse {
  std::optional<std::string> subject;
  std::optional<std::string> email;
  // What makes the answer unusable, if anything.
  std::optional<std::string> problem;
};

// Reads `outcome`; `knownSubject` is the user the ID token named, if it was
// read. Every value is checked, so a malformed answer yields a problem and
// never an exception.
UserinfoResponse readUserinfoResponse(const HttpOutcome& outcome,
                                      const std::optional<std::string>& knownSubject);

}  // namespace vantor::account::detail
