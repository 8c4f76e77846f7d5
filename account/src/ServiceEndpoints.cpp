#include "ServiceEndpoints.hpp"

#include <boost/json/parse.hpp>

#include "vantor/util/LogAccounts.hpp"

namespace vantor::account::detail {

namespace json = boost::json;
using util::logAccounts;

namespace {

std::optional<std::string> textField(const json::object& object, std::string_view key) {
  const auto* value = object.if_contains(key);
  if (value == nullptr || !value->is_string()) {
    return std::nullopt;
  }
  return std::string(value->as_string());
}

std::string withoutTrailingSlash(std::string text) {
  while (!text.empty() && text.back() == '/') {
    text.pop_back();
  }
  return text;
}

}  // namespace

ServiceEndpoints::ServiceEndpoints(const QMOAuthServiceConfiguration& configuration)
    : configuration_(configuration),
      httpOptions_{configuration.useSystemTrustStore,
                   configuration.additionalCertificateAuthorities, configuration.requestTimeout} {}

std::optional<Endpoints> ServiceEndpoints::resolve() {
  std::lock_guard lock(mutex_);
  if (resolved_) {
    return resolved_;
  }
  Endpoints endpoints;
  endpoints.issuer = configuration_.issuer;
  if (configuration_.issuer) {
    // OpenID Connect Discovery 1.0, section 4.
    auto url = withoutTrailingSlash(*configuration_.issuer) + "/.well-known/openid-configuration";
    auto outcome = sendHttpRequestAndWait({"GET", url, {{"Accept", "application/json"}}, {}},
                                          httpOptions_);
    if (!outcome.succeeded() || outcome.status != 200) {
      logAccounts().error("Discovery at " + url + " failed: " +
                          (outcome.succeeded() ? "status " + std::to_string(outcome.status)
                                               : outcome.failure));
      return std::nullopt;
    }
    boost::system::error_code error;
    auto document = json::parse(outcome.body, error);
    if (error || !document.is_object()) {
      logAccounts().error("Discovery at " + url + " answered no JSON object");
      return std::nullopt;
    }
    const auto& metadata = document.as_object();
    // The issuer must match exactly, or tokens could be taken from another
    // service (section 4.3).
    if (textField(metadata, "issuer") != configuration_.issuer) {
      logAccounts().error("Discovery at " + url + " names another issuer");
      return std::nullopt;
    }
    endpoints.authorization = textField(metadata, "authorization_endpoint").value_or("");
    endpoints.token = textField(metadata, "token_endpoint").value_or("");
    endpoints.userinfo = textField(metadata, "userinfo_endpoint");
  }
  if (configuration_.authorizationEndpoint) {
    endpoints.authorization = *configuration_.authorizationEndpoint;
  }
  if (configuration_.tokenEndpoint) {
    endpoints.token = *configuration_.tokenEndpoint;
  }
  if (configuration_.userinfoEndpoint) {
    endpoints.userinfo = configuration_.userinfoEndpoint;
  }
  if (endpoints.authorization.empty() || endpoints.token.empty()) {
    logAccounts().error("The sign-in service has no authorization or token endpoint configured");
    return std::nullopt;
  }
  resolved_ = endpoints;
  return resolved_;
}

}  // namespace vantor::account::detail
