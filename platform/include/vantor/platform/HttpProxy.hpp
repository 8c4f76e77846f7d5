#pragma once

#include <boost/system/result.hpp>
#include <string>
#include <string_view>

namespace vantor::platform {

/// An HTTP proxy that connections reach their server through, with a CONNECT
/// tunnel (see `openHttpTunnel`).
struct HttpProxy {
  std::string host;           ///< name or address (IPv6 without brackets)
  std::string port;           ///< the URL's port, or 80
  std::string authorization;  ///< "Basic ..." from the URL's user and password; or empty

  /// Reads "http://[user:password@]host[:port][/]"; a URL without a scheme
  /// is taken as http, as the proxy variables often give them. Proxies
  /// spoken to over TLS ("https://") are not supported: ProxyError::invalidProxyUrl.
  static boost::system::result<HttpProxy> parse(std::string_view url);
};

}  // namespace vantor::platform
