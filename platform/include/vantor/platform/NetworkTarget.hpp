#pragma once

#include <boost/url/url.hpp>
#include <boost/url/url_view.hpp>
#include <optional>
#include <string>
#include <string_view>

namespace vantor::platform {

/// Parses a URL or relative reference.
///
/// Boost.URL 1.81 reads "http://127.0.0.1.evil.test/" as the host 127.0.0.1
/// with the path ".evil.test/". A path that follows an authority must start
/// with "/", so such readings are refused here: connecting would otherwise
/// reach another host than the text names.
std::optional<boost::urls::url> parseUrl(std::string_view text);

/// `text` as an absolute URL with an authority (host) and no fragment, such
/// as an endpoint; none otherwise.
std::optional<boost::urls::url> parseEndpointUrl(std::string_view text);

/// True for URLs whose host is a loopback address or "localhost".
bool isLoopbackUrl(std::string_view text);

/// Where a client connection goes, read from a URL.
struct NetworkTarget {
  bool secure = false;         ///< the scheme asks for TLS
  bool hostIsAddress = false;  ///< an IP literal: no SNI
  std::string host;            ///< for resolving, SNI and certificate checks
  std::string port;            ///< the URL's port, or the scheme's default
  std::string hostHeader;      ///< host and port as the URL writes them
  std::string target;          ///< path and query; "/" at least

  /// The target of `url` when its scheme is `plainScheme` or `secureScheme`
  /// (for example "ws" and "wss") and it names a host; otherwise nothing.
  static std::optional<NetworkTarget> of(const boost::urls::url_view& url,
                                         std::string_view plainScheme,
                                         std::string_view secureScheme);
};

}  // namespace vantor::platform
