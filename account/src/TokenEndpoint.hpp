#pragma once

#include <chrono>
#include <optional>
#include <string>

#include "HttpClient.hpp"
#include "OAuthSupport.hpp"
#include "vantor/account/QMAccountManager.hpp"
#include "vantor/account/QMAccountTokens.hpp"
#include "vantor/account/QMOAuthServiceConfiguration.hpp"
#include "vantor/account/QMWebServiceClientCredentials.hpp"

namespace vantor::account::detail {

// Requests that the client makes in its own name (token and revocation
// endpoints), and what the token endpoint answers.

// The client credentials that the host registered for accounts of
// `classTypeIdentifier` (or for the service); none, logged, when there are
// none.
std::optional<QMWebServiceClientCredentials> registeredCredentials(const QMAccountManager& manager,
                                                                   std::string_view classTypeIdentifier,
                                                                   const std::string& serviceName);

// A form POST to `url` that authenticates the client as `configuration` says.
HttpRequest clientRequest(const std::string& url, FormFields fields,
                          const QMOAuthServiceConfiguration& configuration,
                          const QMWebServiceClientCredentials& credentials);

std::string deobfuscated(const QMOAuthServiceConfiguration& configuration, std::string_view text);

// What a token endpoint answered (RFC 6749, sections 5.1 and 5.2).
struct TokenResponse {
  QMAccountTokens tokens;
  // What makes the answer unusable, if anything; never a token.
  std::optional<std::string> problem;
  // The service refused the grant (400 or 401), as opposed to failing.
  bool refused = false;
};

// Reads `outcome`; `now` dates `expires_in`. Every value is checked, so a
// malformed answer yields a problem and never an exception.
TokenResponse readTokenResponse(const HttpOutcome& outcome, std::chrono::system_clock::time_point now);

}  // namespace vantor::account::detail
