#pragma once

#include <chrono>
#include <functional>
#include <string>
#include <utility>
#include <vector>

#include <memory>

#include "vantor/platform/ProxySettings.hpp"

namespace boost::asio {
class io_context;
namespace ssl {
class context;
}
}  // namespace boost::asio

namespace vantor::platform {

/// A small HTTP/1.1 client: the account layer's OAuth requests and the
/// long-poll transport. A request has a connection of its own, closed after
/// it, unless it names an `HttpConnection` to keep it in. https verifies the server's
/// certificate chain and host name (with SNI); plain http is refused unless
/// the host is a loopback address or `allowPlainHttp` is set. Behind an HTTP
/// proxy every request, http or https, goes through a CONNECT tunnel: one
/// code path, and the proxy never sees inside an https request.

/// Where a finished request leaves its connection open for the next request
/// to the same host (through the same proxy), as HTTP/1.1 allows: a caller
/// that sends request after request (long-poll) pays the TCP connection, the
/// proxy's tunnel and the TLS handshake once. It holds one connection, for
/// one request at a time, and is used only on the thread that runs the
/// requests' context. A kept connection that the server has closed meanwhile
/// is replaced by a new one for the same request.
class HttpConnection;
std::shared_ptr<HttpConnection> makeHttpConnection();

struct HttpRequest {
  std::string method = "GET";
  std::string url;
  std::vector<std::pair<std::string, std::string>> headers;
  std::string body;
};

struct HttpClientOptions {
  bool useSystemTrustStore = true;
  std::vector<std::string> additionalCertificateAuthorities;  // PEM
  std::chrono::milliseconds timeout{std::chrono::seconds(15)};
  // From the environment by default; see ProxySettings.
  ProxySettings proxy;
  // Plain http to any host, not only to loopback ones.
  bool allowPlainHttp = false;
  // The TLS set-up to use, made once by a caller that sends many requests;
  // by default each request makes its own from the two fields above.
  std::shared_ptr<boost::asio::ssl::context> tls = nullptr;
  // Takes a connection kept here, and keeps the connection here afterwards.
  std::shared_ptr<HttpConnection> keepAlive = nullptr;
};

struct HttpOutcome {
  // Empty when a response arrived, whatever its status.
  std::string failure;
  int status = 0;
  std::string body;

  [[nodiscard]] bool succeeded() const { return failure.empty(); }
};

using HttpCompletion = std::function<void(HttpOutcome outcome)>;

// Starts `request` on `context`; `completion` runs once, on a thread that
// runs `context`, also when the request cannot even start. Response bodies
// over 1 MiB fail.
void sendHttpRequest(boost::asio::io_context& context, HttpRequest request,
                     const HttpClientOptions& options, HttpCompletion completion);

// `request` on a private context on the calling thread; returns when done.
HttpOutcome sendHttpRequestAndWait(HttpRequest request, const HttpClientOptions& options);

}  // namespace vantor::platform
