#pragma once

#include <atomic>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "vantor/realtime/LongPollTransport.hpp"
#include "vantor/realtime/Socket.hpp"
#include "vantor/realtime/URLSessionConfiguration.hpp"
#include "vantor/realtime/URLSessionTransport.hpp"

namespace vantor::realtime {

/// WebSocket first, long-poll when the WebSocket cannot be had:
///
///   auto socket = Socket::make(url, FallbackTransport::factory(configuration));
///
/// Each connection starts as a WebSocket. When its opening fails (the
/// upgrade refused, as by a proxy that blocks upgrades, or any other
/// failure before it opened) and a long-poll session to the same endpoint
/// opens, the connection goes on over long-poll, and the socket sees only
/// an open. The switch is remembered for the life of the factory, so every
/// later connection of the socket is long-poll from the start; make the
/// socket again (or give it a new factory) to try WebSocket again, for
/// example when the network changes. When long-poll fails too, the socket
/// gets the WebSocket's error and close, and reconnects on its back-off.
///
/// Thread safety: as the transports it wraps.
class FallbackTransport : public PhoenixTransport, public std::enable_shared_from_this<FallbackTransport> {
 public:
  /// What the connections made by one factory have learnt.
  struct Choice {
    std::atomic<bool> longPoll{false};
  };

  /// A transport factory for `Socket::make`. `choice`, when given, is
  /// shared with the caller, who can read whether long-poll was chosen.
  static Socket::TransportFactory factory(URLSessionConfiguration configuration = URLSessionConfiguration::defaultConfiguration(),
                                          std::shared_ptr<Choice> choice = nullptr);

  FallbackTransport(boost::urls::url url, URLSessionConfiguration configuration, std::shared_ptr<Choice> choice);

  [[nodiscard]] PhoenixTransportReadyState readyState() const override;
  [[nodiscard]] std::shared_ptr<PhoenixTransportDelegate> delegate() const override;
  void setDelegate(std::shared_ptr<PhoenixTransportDelegate> delegate) override;
  void connect() override;
  void setSubprotocols(std::vector<std::string> subprotocols) override;
  void disconnect(int code, std::optional<std::string> reason) override;
  void send(std::string data) override;
  [[nodiscard]] std::uint64_t bufferedAmount() const override;

 private:
  class Relay;
  // On the main loop: the inner transport's reports.
  void innerOpened(const PhoenixTransport* from);
  void innerFailed(const PhoenixTransport* from, const TransportError& error, const std::optional<HttpResponse>& response);
  void innerMessage(const PhoenixTransport* from, const std::string& message);
  void innerClosed(const PhoenixTransport* from, int code);
  void useInner(std::shared_ptr<PhoenixTransport> inner);

  const boost::urls::url url_;
  const URLSessionConfiguration configuration_;
  const std::shared_ptr<Choice> choice_;
  mutable std::mutex mutex_;
  std::shared_ptr<PhoenixTransportDelegate> delegate_;
  std::shared_ptr<PhoenixTransport> inner_;  // changed on the main loop only, under the lock
  std::vector<std::string> subprotocols_;
  // On the main loop.
  bool opened_ = false;
  bool fallingBack_ = false;
  std::optional<std::pair<TransportError, std::optional<HttpResponse>>> webSocketError_;
};

}  // namespace vantor::realtime
