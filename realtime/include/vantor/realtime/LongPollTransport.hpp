#pragma once

#include <atomic>
#include <boost/url/url.hpp>
#include <boost/url/url_view.hpp>
#include <cstdint>
#include <deque>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "vantor/platform/HttpClient.hpp"
#include "vantor/realtime/PhoenixTransport.hpp"
#include "vantor/realtime/URLSessionConfiguration.hpp"

namespace vantor::realtime {

/// The Phoenix long-poll transport, for networks whose proxies or firewalls
/// break WebSocket upgrades while plain HTTPS works. The socket talks to it
/// as to a WebSocket; underneath it is HTTP at the endpoint's "/longpoll":
/// - opening: a GET without a token answers status 410 with a new session
///   token;
/// - receiving: one poll (a GET with the token) outstanding at all times;
///   200 brings messages, 204 nothing within the server's poll time;
/// - sending: one POST at a time, frames queued meanwhile gathered into the
///   next as newline-separated JSON;
/// - every answer is HTTP 200 with the real status in the JSON body: 410
///   ends the session (reported as an abnormal close, after which the
///   socket reconnects), 403 is a refusal (reported as the WebSocket
///   transport reports an HTTP 403), 408 is retried.
///
/// Requests go through the same HTTP client as the account layer: TLS
/// verification with the configuration's trust settings, its proxy, and
/// `handshakeTimeout` for opening and sending (a poll may last the server's
/// poll time and that much more). Polls and sends each keep one connection
/// open between requests; one the server closed while idle is replaced for
/// the same request. An auth token (`Socket::setAuthToken`)
/// travels raw in the header "x-phoenix-authtoken"; one with control
/// characters, which a header cannot carry, fails every connection attempt.
///
/// After `disconnect` it polls and sends nothing more; the close is reported
/// at once.
///
/// Thread safety: as URLSessionTransport; the delegate is called on the main
/// event loop.
class LongPollTransport : public PhoenixTransport, public std::enable_shared_from_this<LongPollTransport> {
 public:
  /// A transport for the socket's endpoint `url` ("…/websocket?…"): the
  /// path's last "websocket" becomes "longpoll", ws becomes http and wss
  /// https.
  static std::shared_ptr<LongPollTransport> make(
      boost::urls::url_view url,
      URLSessionConfiguration configuration = URLSessionConfiguration::defaultConfiguration());

  /// The long-poll URL for a socket endpoint, as `make` builds it.
  static boost::urls::url longPollUrl(boost::urls::url_view url);

  [[nodiscard]] PhoenixTransportReadyState readyState() const override { return readyState_.load(); }
  [[nodiscard]] std::shared_ptr<PhoenixTransportDelegate> delegate() const override;
  void setDelegate(std::shared_ptr<PhoenixTransportDelegate> delegate) override;
  void connect() override;
  /// Takes the auth token from "base64url.bearer.phx.<token>"; others are
  /// ignored ("phoenix" means nothing over long-poll).
  void setSubprotocols(std::vector<std::string> subprotocols) override;
  void disconnect(int code, std::optional<std::string> reason) override;
  void send(std::string data) override;
  [[nodiscard]] std::uint64_t bufferedAmount() const override { return buffered_.load(); }

  LongPollTransport(boost::urls::url url, URLSessionConfiguration configuration);

 private:
  // Everything below runs on the main event loop.
  void request(const std::string& method, std::string body, bool ndjson,
               std::function<void(const platform::HttpOutcome&)> done);
  void opened(const platform::HttpOutcome& outcome);
  void poll();
  void polled(const platform::HttpOutcome& outcome);
  void flush();
  void post();
  void sent(const platform::HttpOutcome& outcome);
  // Reports a failure as an error and an abnormal close, once.
  void fail(const std::string& description, std::optional<int> httpStatus);
  std::string urlWithToken() const;

  boost::urls::url url_;
  platform::HttpClientOptions options_;
  platform::HttpClientOptions pollOptions_;
  // Polls and sends each keep one connection open between requests.
  std::shared_ptr<platform::HttpConnection> pollConnection_;
  std::shared_ptr<platform::HttpConnection> sendConnection_;
  std::atomic<PhoenixTransportReadyState> readyState_{PhoenixTransportReadyState::closed};
  std::shared_ptr<PhoenixTransportDelegate> delegate_;
  mutable std::mutex delegateMutex_;
  std::optional<std::string> authToken_;
  std::string token_;
  std::deque<std::string> queue_;
  bool sending_ = false;
  // The POST on its way, kept until answered so that a 408 can send it again.
  std::string sendingBody_;
  bool sendingSeveral_ = false;
  std::uint64_t sendingBytes_ = 0;
  std::uint64_t generation_ = 0;  // a new connect() or disconnect() makes older answers stale
  std::atomic<std::uint64_t> buffered_{0};
};

}  // namespace vantor::realtime
