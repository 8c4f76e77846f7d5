#pragma once

#include <boost/system/error_code.hpp>
#include <type_traits>

namespace vantor::platform {

/// Why a connection through an HTTP proxy could not be set up.
enum class ProxyError {
  invalidProxyUrl = 1,  ///< the proxy URL does not read, or its scheme is not http
  connectRefused,       ///< the proxy answered CONNECT with a status other than 2xx
  malformedResponse,    ///< the proxy's answer to CONNECT is not HTTP
  responseTooLarge,     ///< the answer's header exceeds the limit
};

const boost::system::error_category& proxyErrorCategory() noexcept;

boost::system::error_code make_error_code(ProxyError error) noexcept;

}  // namespace vantor::platform

template <>
struct boost::system::is_error_code_enum<vantor::platform::ProxyError> : std::true_type {};
