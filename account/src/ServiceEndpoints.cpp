#include "ServiceEndpoints.hpp"

#include <boost/json/parse.hpp>

#include "OAuthSupport.hpp"
#include "vantor/platform/EventLoop.hpp"
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
      httpOptions_{configuration.useSystemTrustStore, configuration.additionalCertificateAuthorities,
                   configuration.requestTimeout, configuration.proxy} {}

void ServiceEndpoints::resolve(Completion completion) {
  std::unique_lock lock(mutex_);
  if (resolved_) {
    auto endpoints = resolved_;
    lock.unlock();
    return completion(std::move(endpoints));
  }
  const bool explicitOnly =
      configuration_.authorizationEndpoint && configuration_.tokenEndpoint;
  if (!configuration_.issuer || explicitOnly) {
    Endpoints endpoints;
    endpoints.issuer = configuration_.issuer;
    resolved_ = withConfigured(std::move(endpoints));
    auto result = resolved_;
    lock.unlock();
    return completion(std::move(result));
  }
  waiting_.push_back(std::move(completion));
  if (std::exchange(discovering_, true)) {
    return;
  }
  lock.unlock();
  // OpenID Connect Discovery 1.0, section 4.
  auto url = withoutTrailingSlash(*configuration_.issuer) + "/.well-known/openid-configuration";
  sendHttpRequest(platform::EventLoop::main().context(), {"GET", url, {{"Accept", "application/json"}}, {}},
                  httpOptions_, [self = shared_from_this(), url](HttpOutcome outcome) {
                    self->discovered(outcome, url);
                  });
}

void ServiceEndpoints::discovered(const HttpOutcome& outcome, const std::string& url) {
  std::optional<Endpoints> result;
  boost::system::error_code error;
  auto document = outcome.succeeded() ? json::parse(outcome.body, error) : json::value();
  if (!outcome.succeeded() || outcome.status != 200) {
    logAccounts().error("Discovery at " + url + " failed: " +
                        (outcome.succeeded() ? "status " + std::to_string(outcome.status) : outcome.failure));
  } else if (error || !document.is_object()) {
    logAccounts().error("Discovery at " + url + " answered no JSON object");
  } else if (textField(document.as_object(), "issuer") != configuration_.issuer) {
    // The issuer must match exactly, or tokens could be taken from another
    // service (section 4.3).
    logAccounts().error("Discovery at " + url + " names another issuer");
  } else {
    const auto& metadata = document.as_object();
    Endpoints endpoints;
    endpoints.issuer = configuration_.issuer;
    endpoints.authorization = textField(metadata, "authorization_endpoint").value_or("");
    endpoints.token = textField(metadata, "token_endpoint").value_or("");
    endpoints.userinfo = textField(metadata, "userinfo_endpoint");
    endpoints.revocation = textField(metadata, "revocation_endpoint");
    result = withConfigured(std::move(endpoints));
  }
  std::vector<Completion> waiting;
  {
    std::lock_guard lock(mutex_);
    discovering_ = false;
    resolved_ = result;
    waiting.swap(waiting_);
  }
  for (auto& completion : waiting) {
    completion(result);
  }
}

std::optional<Endpoints> ServiceEndpoints::withConfigured(Endpoints endpoints) const {
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
  // The user types a password into the authorization page, and tokens travel
  // to and from the others: none of them may go unencrypted off the machine.
  for (const auto* url : {&endpoints.authorization, &endpoints.token}) {
    if (!isAllowedEndpointURL(*url)) {
      logAccounts().error("The sign-in endpoint " + *url + " is neither https nor a loopback http URL");
      return std::nullopt;
    }
  }
  for (auto* url : {&endpoints.userinfo, &endpoints.revocation}) {
    if (*url && !isAllowedEndpointURL(**url)) {
      logAccounts().error("The sign-in endpoint " + **url + " is neither https nor a loopback http URL");
      return std::nullopt;
    }
  }
  return endpoints;
}

}  // namespace vantor::account::detail
