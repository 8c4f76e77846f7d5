#include "vantor/platform/HttpProxy.hpp"

#include <vector>

#include "vantor/platform/Base64.hpp"
#include "vantor/platform/NetworkTarget.hpp"
#include "vantor/platform/ProxyError.hpp"

namespace vantor::platform {

boost::system::result<HttpProxy> HttpProxy::parse(std::string_view text) {
  while (!text.empty() && (text.front() == ' ' || text.front() == '\t')) {
    text.remove_prefix(1);
  }
  while (!text.empty() && (text.back() == ' ' || text.back() == '\t')) {
    text.remove_suffix(1);
  }
  std::string withScheme(text);
  if (withScheme.find("://") == std::string::npos) {
    withScheme.insert(0, "http://");
  }
  auto url = parseUrl(withScheme);
  if (url) {
    url->normalize_scheme();
  }
  if (!url || url->scheme_id() != boost::urls::scheme::http ||
      (url->encoded_path() != "" && url->encoded_path() != "/") || url->has_query()) {
    return ProxyError::invalidProxyUrl;
  }
  auto target = NetworkTarget::of(*url, "http", "https");
  if (!target) {
    return ProxyError::invalidProxyUrl;
  }
  HttpProxy proxy;
  proxy.host = target->host;
  proxy.port = target->port;
  if (url->has_userinfo()) {
    proxy.authorization = "Basic " + base64Encode(url->user() + ":" + url->password());
  }
  return proxy;
}

}  // namespace vantor::platform
