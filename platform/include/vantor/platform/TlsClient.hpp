#pragma once

#include <boost/asio/ssl/context.hpp>
#include <boost/asio/ssl/error.hpp>
#include <boost/asio/ssl/host_name_verification.hpp>
#include <memory>
#include <string>
#include <vector>

#include "vantor/platform/NetworkTarget.hpp"

namespace vantor::platform {

/// A TLS client context that verifies the server's certificate chain: TLS
/// 1.2 or later, the system trust store when `useSystemTrustStore`, and the
/// given PEM certificate authorities. A CA that does not read sets `error`
/// and gives no context.
std::shared_ptr<boost::asio::ssl::context> makeTlsClientContext(
    bool useSystemTrustStore, const std::vector<std::string>& additionalCertificateAuthorities,
    boost::system::error_code& error);

/// Readies a TLS stream for its client handshake with `target`: SNI for host
/// names (never for addresses) and verification of the certificate's host
/// name or address. Returns the error of a failed SNI set-up.
template <class TlsStream>
boost::system::error_code prepareTlsHandshake(TlsStream& stream, const NetworkTarget& target) {
  if (!target.hostIsAddress &&
      SSL_set_tlsext_host_name(stream.native_handle(), target.host.c_str()) != 1) {
    return {static_cast<int>(::ERR_get_error()), boost::asio::error::get_ssl_category()};
  }
  stream.set_verify_callback(boost::asio::ssl::host_name_verification(target.host));
  return {};
}

}  // namespace vantor::platform
