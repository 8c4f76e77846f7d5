#pragma once

#include <mutex>
#include <optional>
#include <string>

#include "HttpClient.hpp"
#include "vantor/account/QMOAuthServiceConfiguration.hpp"

namespace vantor::account::detail {

struct Endpoints {
  std::string authorization;
  std::string token;
  std::optional<std::string> userinfo;
  // The issuer that ID tokens must name; none for plain OAuth services.
  std::optional<std::string> issuer;
};

// The service's endpoints: the configured ones, completed by OpenID Connect
// discovery when an issuer is configured. A successful discovery is kept for
// the life of the object; a failed one is tried again on the next call.
//
// Thread safety: `resolve` may be called from any thread; concurrent first
// calls discover once.
class ServiceEndpoints {
 public:
  explicit ServiceEndpoints(const QMOAuthServiceConfiguration& configuration);

  // Blocks the calling thread for discovery (bounded by the request time-out).
  std::optional<Endpoints> resolve();

  [[nodiscard]] HttpClientOptions httpOptions() const { return httpOptions_; }

 private:
  const QMOAuthServiceConfiguration configuration_;
  const HttpClientOptions httpOptions_;
  std::mutex mutex_;
  std::optional<Endpoints> resolved_;
};

}  // namespace vantor::account::detail
