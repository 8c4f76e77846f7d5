#include "vantor/platform/NetworkTarget.hpp"

#include <boost/url/parse.hpp>

namespace vantor::platform {

std::optional<boost::urls::url> parseUrl(std::string_view text) {
  auto parsed = boost::urls::parse_uri_reference(text);
  if (!parsed) {
    return std::nullopt;
  }
  if (parsed->has_authority() && !parsed->encoded_path().empty() &&
      parsed->encoded_path().front() != '/') {
    return std::nullopt;
  }
  return boost::urls::url(*parsed);
}

std::optional<NetworkTarget> NetworkTarget::of(const boost::urls::url_view& url,
                                               std::string_view plainScheme,
                                               std::string_view secureScheme) {
  NetworkTarget target;
  if (url.scheme() == secureScheme) {
    target.secure = true;
  } else if (url.scheme() != plainScheme) {
    return std::nullopt;
  }
  switch (url.host_type()) {
    case boost::urls::host_type::ipv4:
      target.host = url.host_ipv4_address().to_string();
      target.hostIsAddress = true;
      break;
    case boost::urls::host_type::ipv6:
      target.host = url.host_ipv6_address().to_string();
      target.hostIsAddress = true;
      break;
    case boost::urls::host_type::name:
      target.host = url.host_name();
      break;
    default:
      break;
  }
  if (target.host.empty()) {
    return std::nullopt;
  }
  target.port = url.has_port() ? std::string(url.port()) : (target.secure ? "443" : "80");
  target.hostHeader = url.encoded_host_and_port();
  target.target = url.encoded_path().empty() ? "/" : std::string(url.encoded_path());
  if (url.has_query()) {
    target.target += "?";
    target.target += url.encoded_query();
  }
  return target;
}

std::optional<boost::urls::url> parseEndpointUrl(std::string_view text) {
  auto url = parseUrl(text);
  if (!url || !url->has_scheme() || !url->has_authority() || url->has_fragment()) {
    return std::nullopt;
  }
  return url;
}

bool isLoopbackUrl(std::string_view text) {
  auto url = parseEndpointUrl(text);
  if (!url) {
    return false;
  }
  switch (url->host_type()) {
    case boost::urls::host_type::ipv4:
      return url->host_ipv4_address().to_bytes()[0] == 127;
    case boost::urls::host_type::ipv6:
      return url->host_ipv6_address().is_loopback();
    case boost::urls::host_type::name: {
      std::string host = url->host_name();
      for (auto& c : host) {
        c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
      }
      return host == "localhost";
    }
    default:
      return false;
  }
}

}  // namespace vantor::platform
