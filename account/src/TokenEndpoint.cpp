#include "TokenEndpoint.hpp"

#include <boost/json/parse.hpp>

#include "vantor/util/LogAccounts.hpp"

namespace vantor::account::detail {

namespace json = boost::json;
using ClientAuthentication = QMOAuthServiceConfiguration::ClientAuthentication;

namespace {

// Longer than any access token lives; a larger `expires_in` is nonsense.
constexpr std::chrono::seconds longestLifetime = std::chrono::hours(24 * 366 * 10);

std::optional<std::string> textField(const json::object& object, std::string_view key) {
  const auto* value = object.if_contains(key);
  if (value == nullptr || !value->is_string()) {
    return std::nullopt;
  }
  return std::string(value->as_string());
}

}  // namespace

std::string deobfuscated(const QMOAuthServiceConfiguration& configuration, std::string_view text) {
  return configuration.deobfuscate ? configuration.deobfuscate(text) : std::string(text);
}

std::optional<QMWebServiceClientCredentials> registeredCredentials(const QMAccountManager& manager,
                                                                   std::string_view classTypeIdentifier,
                                                                   const std::string& serviceName) {
  auto* provider = manager.delegateOfWebServiceRequirements();
  if (provider != nullptr) {
    for (auto& candidate : provider->webServiceClientCredentials()) {
      if (candidate.serviceProvider == QMWebServiceProvider::quelmoConnect ||
          candidate.serviceProviderClassTypeIdentifier == classTypeIdentifier) {
        return std::move(candidate);
      }
    }
  }
  util::logAccounts().error("No client credentials are registered for " + serviceName);
  return std::nullopt;
}

HttpRequest clientRequest(const std::string& url, FormFields fields,
                          const QMOAuthServiceConfiguration& configuration,
                          const QMWebServiceClientCredentials& credentials) {
  HttpRequest request{"POST", url, {}, {}};
  request.headers.emplace_back("Content-Type", "application/x-www-form-urlencoded");
  request.headers.emplace_back("Accept", "application/json");
  auto clientId = deobfuscated(configuration, credentials.obfuscatedClientId);
  switch (configuration.clientAuthentication) {
    case ClientAuthentication::clientSecretBasic:
      // RFC 6749, section 2.3.1: both parts form-encoded before Basic.
      request.headers.emplace_back(
          "Authorization",
          "Basic " + base64Encode(formEncodeComponent(clientId) + ":" +
                                  formEncodeComponent(deobfuscated(configuration,
                                                                   credentials.obfuscatedClientSecret))));
      break;
    case ClientAuthentication::clientSecretPost:
      fields.emplace_back("client_id", clientId);
      fields.emplace_back("client_secret", deobfuscated(configuration, credentials.obfuscatedClientSecret));
      break;
    case ClientAuthentication::none:
      fields.emplace_back("client_id", clientId);
      break;
  }
  request.body = formEncode(fields);
  return request;
}

TokenResponse readTokenResponse(const HttpOutcome& outcome, std::chrono::system_clock::time_point now) {
  TokenResponse answer;
  if (!outcome.succeeded()) {
    answer.problem = "the token endpoint could not be reached: " + outcome.failure;
    return answer;
  }
  boost::system::error_code error;
  auto document = json::parse(outcome.body, error);
  const auto* response = !error && document.is_object() ? &document.as_object() : nullptr;
  if (outcome.status != 200) {
    // The OAuth error code names the cause without revealing anything.
    auto code = response ? textField(*response, "error") : std::nullopt;
    answer.problem = "the token endpoint answered " + std::to_string(outcome.status) +
                     (code ? " (" + *code + ")" : "");
    answer.refused = outcome.status == 400 || outcome.status == 401;
    return answer;
  }
  if (response == nullptr) {
    answer.problem = "the token endpoint answered no JSON object";
    return answer;
  }
  auto& tokens = answer.tokens;
  tokens.accessToken = textField(*response, "access_token");
  tokens.tokenType = textField(*response, "token_type");
  tokens.refreshToken = textField(*response, "refresh_token");
  tokens.idToken = textField(*response, "id_token");
  if (const auto* expiresIn = response->if_contains("expires_in")) {
    auto lifetime = secondsIn(*expiresIn, longestLifetime);
    if (!lifetime) {
      answer.problem = "the token response gives an unusable lifetime";
      return answer;
    }
    tokens.expiresAt = now + *lifetime;
  }
  if (!tokens.accessToken || tokens.accessToken->empty()) {
    answer.problem = "the token response has no access token";
  }
  return answer;
}

}  // namespace vantor::account::detail
