#pragma once

#include <chrono>
#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "vantor/platform/Base64.hpp"
#include "vantor/platform/NetworkTarget.hpp"

#include <boost/json/object.hpp>
#include <boost/url/url.hpp>

namespace vantor::account::detail {

// Encodings and small crypto pieces of OAuth 2.0 and OpenID Connect that do
// no I/O.

using platform::base64Encode;
// Unpadded, with '-' and '_' (RFC 4648 section 5), as PKCE and JWTs use it.
inline std::string base64UrlEncode(std::string_view bytes) {
  return platform::base64Encode(bytes, platform::Base64Alphabet::url, false);
}
// Accepts input with or without padding; none for anything else.
inline std::optional<std::string> base64UrlDecode(std::string_view text) {
  return platform::base64Decode(text, platform::Base64Alphabet::url);
}

// `byteCount` bytes from the system's cryptographic generator, base64url
// encoded: unguessable `state`, `nonce` and PKCE verifier values.
std::string randomToken(std::size_t byteCount);

// The PKCE S256 challenge for `verifier`: base64url(SHA-256(verifier)).
std::string pkceChallenge(std::string_view verifier);

using FormFields = std::vector<std::pair<std::string, std::string>>;

// application/x-www-form-urlencoded.
std::string formEncode(const FormFields& fields);
std::string formEncodeComponent(std::string_view text);

// True for URLs the sign-in may send the user or its requests to: https, or
// plain http to a loopback host.
bool isAllowedEndpointURL(std::string_view url);

// A count of seconds read from the network or the store: a JSON number
// (fractions are cut off) from 0 to `limit`; none for anything else, so
// that no value can overflow the clock's arithmetic.
std::optional<std::chrono::seconds> secondsIn(const boost::json::value& value, std::chrono::seconds limit);

// A JWT "NumericDate" or a stored time: seconds since 1970, as a time point;
// none when not a number or beyond half the clock's range.
std::optional<std::chrono::system_clock::time_point> unixTimeIn(const boost::json::value& value);

// The claims of a JWT in compact form, without checking its signature; none
// when it is not three base64url parts with a JSON object in the middle.
std::optional<boost::json::object> jwtClaims(std::string_view jwt);

}  // namespace vantor::account::detail
