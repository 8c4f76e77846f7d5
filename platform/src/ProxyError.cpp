#include "vantor/platform/ProxyError.hpp"

#include <string>

namespace vantor::platform {

namespace {

class ProxyErrorCategory final : public boost::system::error_category {
 public:
  const char* name() const noexcept override { return "vantor.proxy"; }

  std::string message(int value) const override {
    switch (static_cast<ProxyError>(value)) {
      case ProxyError::invalidProxyUrl:
        return "the proxy URL is not an http URL with a host";
      case ProxyError::connectRefused:
        return "the proxy refused CONNECT";
      case ProxyError::malformedResponse:
        return "the proxy's answer to CONNECT is not HTTP";
      case ProxyError::responseTooLarge:
        return "the proxy's answer to CONNECT is too large";
    }
    return "unknown proxy error";
  }
};

}  // namespace

const boost::system::error_category& proxyErrorCategory() noexcept {
  static const ProxyErrorCategory category;
  return category;
}

boost::system::error_code make_error_code(ProxyError error) noexcept {
  return {static_cast<int>(error), proxyErrorCategory()};
}

}  // namespace vantor::platform
