#pragma once

#include <atomic>
#include <boost/url/url.hpp>
#include <boost/url/url_view.hpp>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "vantor/realtime/PhoenixTransport.hpp"
#include "vantor/realtime/URLSessionConfiguration.hpp"

namespace vantor::realtime {

/// The WebSocket transport, over TCP ("ws") or TLS ("wss"), built on
/// Boost.Beast. It carries text frames only: binary frames are dropped with
/// a line on standard output. It does no reconnecting, buffering or
/// heartbeats of its own; those belong to the socket.
///
/// Every delegate call and every completion runs on the main event loop,
/// one at a time; received frames are delivered in order, the next read
/// starting only after the delegate returned from the previous frame.
///
/// Each `connect()` makes a new connection (a "session"). A session reports
/// its end once: either `onClose(code)` after a close handshake, or
/// `onError` followed by `onClose(999)` after a failure. Calling `connect()`
/// while an earlier session is still alive closes the earlier one quietly.
/// Releasing the transport closes its connection without further reports.
///
/// Thread safety: every member may be called from any thread; the work is
/// carried onto the main loop.
class URLSessionTransport : public PhoenixTransport,
                            public std::enable_shared_from_this<URLSessionTransport> {
 public:
  /// Makes a transport for `url`. Every "http://" in the URL's text becomes
  /// "ws://" and every "https://" becomes "wss://" (plain text replacement,
  /// also inside the path or query). A result that does not parse as a URL
  /// is a programming error and stops the process.
  static std::shared_ptr<URLSessionTransport> make(
      boost::urls::url_view url,
      URLSessionConfiguration configuration = URLSessionConfiguration::defaultConfiguration());

  ~URLSessionTransport() override;
  URLSessionTransport(const URLSessionTransport&) = delete;
  URLSessionTransport& operator=(const URLSessionTransport&) = delete;

  /// The endpoint after the scheme rewrite.
  [[nodiscard]] const boost::urls::url& url() const noexcept { return url_; }
  [[nodiscard]] const URLSessionConfiguration& configuration() const noexcept {
    return configuration_;
  }

  [[nodiscard]] PhoenixTransportReadyState readyState() const override { return readyState_; }
  [[nodiscard]] std::shared_ptr<PhoenixTransportDelegate> delegate() const override;
  void setDelegate(std::shared_ptr<PhoenixTransportDelegate> delegate) override;

  /// Starts a new connection; `readyState` is `connecting` when it returns.
  void connect() override;
  /// Starts the closing handshake with `code` (passed through unchecked) and
  /// `reason`; `readyState` is `closing` when it returns. Without a
  /// connection it only sets the state.
  void disconnect(int code, std::optional<std::string> reason) override;
  /// Offered in the "Sec-WebSocket-Protocol" header of later connections.
  void setSubprotocols(std::vector<std::string> subprotocols) override;
  /// Sends `data` as one text frame; dropped silently without a connection.
  /// Send failures are not reported: a broken connection shows up through
  /// the read side. Bytes that are not UTF-8 are a programming error and
  /// stop the process.
  void send(std::string data) override;
  /// Bytes given to `send` and not yet handed to the kernel: frames queued
  /// for the connection and the bytes gathered for its next system call.
  /// Any thread may read it; it does not wait for the event loop.
  [[nodiscard]] std::uint64_t bufferedAmount() const override;

 private:
  class Session;
  friend class Session;

  URLSessionTransport(boost::urls::url url, URLSessionConfiguration configuration);

  // Posts `work` to the main loop, counted in `queued_` until it has run.
  template <class F>
  void queue(F&& work);

  // Session reports, on the main loop.
  void opened();
  void received(const std::string& text);
  void closed(int code);
  void abnormalErrorReceived(const TransportError& error,
                             const std::optional<HttpResponse>& response);

  boost::urls::url url_;
  URLSessionConfiguration configuration_;
  std::atomic<PhoenixTransportReadyState> readyState_{PhoenixTransportReadyState::closed};
  mutable std::mutex mutex_;
  std::shared_ptr<PhoenixTransportDelegate> delegate_;  // guarded by mutex_
  std::shared_ptr<Session> session_;                    // guarded by mutex_
  std::vector<std::string> subprotocols_;               // guarded by mutex_
  // Work of this transport posted to the loop and not yet run: a send on the
  // loop writes at once only when there is none, so that it cannot overtake.
  std::atomic<int> queued_{0};
  const std::shared_ptr<std::atomic<std::uint64_t>> unsent_ =
      std::make_shared<std::atomic<std::uint64_t>>(0);
  bool reportingOpen_ = false;  // on the loop: the delegate's onOpen is running
};

}  // namespace vantor::realtime
