#pragma once

#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "HttpClient.hpp"
#include "vantor/account/QMOAuthServiceConfiguration.hpp"

namespace vantor::account::detail {

struct Endpoints {
  std::string authorization;
  std::string token;
  std::optional<std::string> userinfo;
  // RFC 7009; only when discovery advertises one.
  std::optional<std::string> revocation;
  // The issuer that ID tokens must name; none for plain OAuth services.
  std::optional<std::string> issuer;
};

// The service's endpoints: the configured ones, completed by OpenID Connect
// discovery when an issuer is configured and the authorization and token
// endpoints are not both given. Every endpoint must be https, or http to a
// loopback host. A successful discovery is kept for the life of the object;
// a failed one is tried again on the next call.
//
// Thread safety: `resolve` may be called from any thread; concurrent first
// calls share one discovery.
class ServiceEndpoints : public std::enable_shared_from_this<ServiceEndpoints> {
 public:
  using Completion = std::function<void(std::optional<Endpoints> endpoints)>;

  explicit ServiceEndpoints(const QMOAuthServiceConfiguration& configuration);

  // Calls `completion` once with the endpoints, or none when they cannot be
  // had: at once on the calling thread when no request is needed, otherwise
  // later on the main event loop. Never blocks.
  void resolve(Completion completion);

  [[nodiscard]] HttpClientOptions httpOptions() const { return httpOptions_; }

 private:
  void discovered(const HttpOutcome& outcome, const std::string& url);
  std::optional<Endpoints> withConfigured(Endpoints endpoints) const;

  const QMOAuthServiceConfiguration configuration_;
  const HttpClientOptions httpOptions_;
  std::mutex mutex_;
  std::optional<Endpoints> resolved_;
  bool discovering_ = false;
  std::vector<Completion> waiting_;
};

}  // namespace vantor::account::detail
