#include "OAuthSupport.hpp"

#include <openssl/sha.h>

#if defined(__APPLE__)
#include <stdlib.h>
#else
#include <sys/random.h>
#endif

#include <array>
#include <cerrno>
#include <boost/json/parse.hpp>
#include <boost/url/parse.hpp>
#include <stdexcept>

#include "vantor/platform/Fatal.hpp"
#include "vantor/platform/NetworkTarget.hpp"

namespace vantor::account::detail {

std::string randomToken(std::size_t byteCount) {
  // The kernel's generator rather than OpenSSL's: OpenSSL keeps generator
  // state per thread, which the event loop's thread would hold until exit.
  std::string bytes(byteCount, '\0');
#if defined(__APPLE__)
  arc4random_buf(bytes.data(), bytes.size());
#else
  std::size_t filled = 0;
  while (filled < bytes.size()) {
    auto n = ::getrandom(bytes.data() + filled, bytes.size() - filled, 0);
    if (n < 0 && errno == EINTR) {
      continue;
    }
    if (n <= 0) {
      // Without a working random generator no sign-in can be made safe.
      platform::fatalError("The system's random number generator failed");
    }
    filled += static_cast<std::size_t>(n);
  }
#endif
  return base64UrlEncode(bytes);
}

std::string pkceChallenge(std::string_view verifier) {
  std::array<unsigned char, SHA256_DIGEST_LENGTH> digest{};
  SHA256(reinterpret_cast<const unsigned char*>(verifier.data()), verifier.size(), digest.data());
  return base64UrlEncode(std::string_view(reinterpret_cast<const char*>(digest.data()), digest.size()));
}

std::string formEncodeComponent(std::string_view text) {
  static constexpr char hex[] = "0123456789ABCDEF";
  std::string out;
  for (char c : text) {
    auto u = static_cast<unsigned char>(c);
    if ((u >= 'A' && u <= 'Z') || (u >= 'a' && u <= 'z') || (u >= '0' && u <= '9') || c == '-' ||
        c == '.' || c == '_' || c == '*') {
      out += c;
    } else if (c == ' ') {
      out += '+';
    } else {
      out += '%';
      out += hex[u >> 4];
      out += hex[u & 15];
    }
  }
  return out;
}

std::string formEncode(const FormFields& fields) {
  std::string out;
  for (const auto& [name, value] : fields) {
    if (!out.empty()) {
      out += '&';
    }
    out += formEncodeComponent(name);
    out += '=';
    out += formEncodeComponent(value);
  }
  return out;
}

bool isAllowedEndpointURL(std::string_view text) {
  auto url = platform::parseEndpointUrl(text);
  if (!url || url->host().empty()) {
    return false;
  }
  return url->scheme_id() == boost::urls::scheme::https ||
         (url->scheme_id() == boost::urls::scheme::http && platform::isLoopbackUrl(text));
}

std::optional<std::chrono::seconds> secondsIn(const boost::json::value& value, std::chrono::seconds limit) {
  double seconds = 0;
  if (value.is_int64()) {
    seconds = static_cast<double>(value.get_int64());
  } else if (value.is_uint64()) {
    seconds = static_cast<double>(value.get_uint64());
  } else if (value.is_double()) {
    seconds = value.get_double();
  } else {
    return std::nullopt;
  }
  // Written so that NaN fails too.
  if (!(seconds >= 0 && seconds <= static_cast<double>(limit.count()))) {
    return std::nullopt;
  }
  return std::chrono::seconds(static_cast<std::int64_t>(seconds));
}

std::optional<std::chrono::system_clock::time_point> unixTimeIn(const boost::json::value& value) {
  // Half the clock's range (about the year 2116 with nanosecond ticks), so
  // that adding a leeway or a lifetime to it cannot overflow either.
  constexpr auto limit =
      std::chrono::duration_cast<std::chrono::seconds>(std::chrono::system_clock::duration::max()) / 2;
  auto seconds = secondsIn(value, limit);
  if (!seconds) {
    return std::nullopt;
  }
  return std::chrono::system_clock::time_point(*seconds);
}

std::optional<boost::json::object> jwtClaims(std::string_view jwt) {
  auto first = jwt.find('.');
  auto second = first == std::string_view::npos ? first : jwt.find('.', first + 1);
  if (second == std::string_view::npos || jwt.find('.', second + 1) != std::string_view::npos) {
    return std::nullopt;
  }
  auto payload = base64UrlDecode(jwt.substr(first + 1, second - first - 1));
  if (!payload) {
    return std::nullopt;
  }
  boost::system::error_code error;
  auto value = boost::json::parse(*payload, error);
  if (error || !value.is_object()) {
    return std::nullopt;
  }
  return std::move(value.as_object());
}

}  // namespace vantor::account::detail
