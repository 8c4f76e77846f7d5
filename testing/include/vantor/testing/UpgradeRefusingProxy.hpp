#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

namespace vantor::testing {

/// A proxy on 127.0.0.1 (a free port) that blocks WebSocket upgrades and
/// passes every other request, as corporate proxies and TLS-inspecting
/// firewalls often do. It answers a request with "Upgrade: websocket" with
/// "403 Forbidden" and closes; other requests go on to the server.
///
/// It serves both ways a client meets such a proxy:
/// - as an HTTP proxy (`url()` in `http_proxy`, or a desktop's proxy
///   settings): a CONNECT is tunnelled to its target, and the first request
///   inside the tunnel is inspected (plain ws and http only: TLS cannot be
///   looked into);
/// - in front of a server, on `Options::targetPort`, for clients that
///   connect to the proxy as if it were the server.
///
/// Only the first request of a connection is inspected; what follows on it
/// passes as it is (long-poll keeps its connections). It runs on a thread of its own; every member may be called from
/// any thread.
class UpgradeRefusingProxy {
 public:
  struct Options {
    std::uint16_t targetPort = 0;  ///< the server behind it, for direct requests
  };

  explicit UpgradeRefusingProxy(Options options);
  ~UpgradeRefusingProxy();
  UpgradeRefusingProxy(const UpgradeRefusingProxy&) = delete;
  UpgradeRefusingProxy& operator=(const UpgradeRefusingProxy&) = delete;

  [[nodiscard]] std::uint16_t port() const;
  /// "http://127.0.0.1:<port>", for proxy settings.
  [[nodiscard]] std::string url() const;
  /// Upgrades refused, and other requests passed, so far.
  [[nodiscard]] std::size_t upgradesRefused() const;
  [[nodiscard]] std::size_t requestsPassed() const;

 private:
  class Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace vantor::testing
