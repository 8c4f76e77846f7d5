#pragma once

#include <chrono>
#include <cstddef>
#include <string>
#include <vector>

#include "vantor/platform/ProxySettings.hpp"

namespace vantor::realtime {

/// Connection settings of a `URLSessionTransport`.
///
/// TLS always verifies the server's certificate chain and host name (with
/// SNI). By default the system trust store is used; callers may add their
/// own certificate authorities, for example a private CA.
struct URLSessionConfiguration {
  /// Trust the certificate authorities of the system trust store.
  bool useSystemTrustStore = true;
  /// Further certificate authorities to trust, each as PEM text.
  std::vector<std::string> additionalCertificateAuthorities;
  /// Limit for the whole opening of a connection: the DNS look-up, the TCP
  /// connect, the TLS handshake and the WebSocket upgrade together. A server
  /// that accepts TCP and never answers fails the connection after this.
  std::chrono::milliseconds handshakeTimeout{std::chrono::seconds(10)};
  /// How long `disconnect` waits for the server's answer to its close frame
  /// (and for frames queued before it to be written). The close is reported
  /// when the answer comes or this passes, whichever is first, so a frozen
  /// server or a dead network cannot hold a close up.
  std::chrono::milliseconds closeTimeout{std::chrono::seconds(1)};
  /// Offer permessage-deflate compression (RFC 7692) in the handshake. When
  /// the server takes it up, frames in both directions are compressed; when
  /// it does not, the connection goes on uncompressed. Off by default.
  bool perMessageDeflate = false;
  /// The HTTP proxy to reach the server through: by default the one that
  /// `https_proxy` (wss) or `http_proxy` (ws) names, unless `no_proxy`
  /// exempts the host; `ProxySettings::none()` always connects directly.
  /// The connection is tunnelled with CONNECT; TLS and its checks run end to
  /// end with the server, and `handshakeTimeout` covers the proxy's part.
  platform::ProxySettings proxy;
  /// The bytes a connection gathers for its next system call, at most:
  /// past this a send waits until the network has taken enough of them, so
  /// a producer faster than the network does not grow them without bound.
  /// `Socket::bufferedAmount()` counts them.
  std::size_t maximumGatheredBytes = 256 * 1024;

  static URLSessionConfiguration defaultConfiguration() { return {}; }
};

}  // namespace vantor::realtime
