#include "vantor/realtime/URLSessionTransport.hpp"

#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/ssl.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/beast/core.hpp>
#include <boost/beast/ssl.hpp>
#include <boost/beast/websocket.hpp>
#include <boost/beast/websocket/ssl.hpp>
#include <algorithm>
#include <deque>

#include "Text.hpp"
#include "vantor/platform/CoalescingStream.hpp"
#include "vantor/platform/EventLoop.hpp"
#include "vantor/platform/Fatal.hpp"
#include "vantor/platform/HttpTunnel.hpp"
#include "vantor/platform/NetworkTarget.hpp"
#include "vantor/platform/TlsClient.hpp"

namespace vantor::realtime {

namespace asio = boost::asio;
namespace beast = boost::beast;
namespace http = beast::http;
namespace ssl = asio::ssl;
namespace websocket = beast::websocket;
using tcp = asio::ip::tcp;
using boost::system::error_code;
using platform::EventLoop;
using platform::NetworkTarget;

namespace {

std::string replaceAll(std::string text, std::string_view from, std::string_view to) {
  for (auto at = text.find(from); at != std::string::npos; at = text.find(from, at + to.size())) {
    text.replace(at, from.size(), to);
  }
  return text;
}

HttpResponse toHttpResponse(const websocket::response_type& response) {
  HttpResponse result;
  result.statusCode = static_cast<int>(response.result_int());
  result.reason = std::string(response.reason());
  for (const auto& field : response) {
    result.headers.emplace_back(std::string(field.name_string()), std::string(field.value()));
  }
  result.body = response.body();
  return result;
}

bool isWebSocketError(const error_code& error) {
  return error.category() == websocket::make_error_code(websocket::error::closed).category();
}

// The code to report for a close frame that carried none.
constexpr int noStatusReceived = 1005;
// The code to report when our close got no answer in time.
constexpr int abnormalClosure = 1006;
// The largest frame text kept allocated between frames.
constexpr std::size_t keptFrameCapacity = 64 * 1024;

}  // namespace

/// One connection: resolve, TCP connect, TLS handshake, WebSocket handshake,
/// then one read loop and one writer. It lives as long as an operation of
/// its own is pending, holds its transport weakly, and reports its end to the
/// transport exactly once (or not at all once detached). Runs on the main
/// loop only.
class URLSessionTransport::Session : public std::enable_shared_from_this<Session> {
 public:
  Session(std::weak_ptr<URLSessionTransport> transport, URLSessionConfiguration configuration,
          std::vector<std::string> subprotocols, std::shared_ptr<std::atomic<std::uint64_t>> unsent)
      : transport_(std::move(transport)),
        configuration_(std::move(configuration)),
        subprotocols_(std::move(subprotocols)),
        resolver_(EventLoop::main().context()),
        deadline_(EventLoop::main().context()),
        unsent_(std::move(unsent)) {}

  // Frames that never reach the stream no longer count as buffered.
  ~Session() { dropOutbox(); }
  Session(const Session&) = delete;
  Session& operator=(const Session&) = delete;

  void start(const boost::urls::url& url) {
    auto endpoint = NetworkTarget::of(url, "ws", "wss");
    if (!endpoint) {
      return fail(boost::system::errc::make_error_code(boost::system::errc::protocol_not_supported));
    }
    endpoint_ = std::move(*endpoint);
    // The desktop may be asked for the proxy, off the loop.
    configuration_.proxy.resolve(endpoint_, EventLoop::main().context(), [self = shared_from_this()](auto proxy) {
      if (self->finished_) {
        return;
      }
      if (!proxy || self->closing_) {
        return self->fail(proxy ? asio::error::operation_aborted : proxy.error());
      }
      self->proxy_ = std::move(*proxy);
      self->open();
    });
  }

  void open() {
    auto& context = EventLoop::main().context();
    if (endpoint_.secure) {
      error_code error;
      auto tls = platform::makeTlsClientContext(configuration_.useSystemTrustStore,
                                                configuration_.additionalCertificateAuthorities, error);
      if (!tls) {
        return fail(error);
      }
      tls_ = std::move(tls);
      secure_ = std::make_unique<SecureStream>(context, *tls_);
    } else {
      plain_ = std::make_unique<PlainStream>(context);
    }
    withStream([&](auto& ws) {
      coalescing(ws).countHeldInto(unsent_);
      coalescing(ws).setMaximumHeld(configuration_.maximumGatheredBytes);
    });
    // One deadline for the whole opening, DNS included: a server that
    // accepts TCP and never answers must not hold the client for long.
    armDeadline(configuration_.handshakeTimeout, [](Session& self) {
      if (!self.open_) {
        self.reportAbnormal(TransportError::from(beast::error::timeout), std::nullopt);
      }
    });
    // Through a proxy, TCP goes to the proxy and a tunnel to the server follows.
    resolver_.async_resolve(proxy_ ? proxy_->host : endpoint_.host, proxy_ ? proxy_->port : endpoint_.port,
                            [self = shared_from_this()](error_code error, auto results) {
                              self->onResolved(error, std::move(results));
                            });
  }

  void write(std::string text) {
    if (finished_ || closing_) {
      uncount(text.size());
      return;  // nothing may follow a close frame
    }
    outbox_.push_back(std::move(text));
    if (open_ && !writing_) {
      writeNext();
    }
  }

  void close(int code, std::optional<std::string> reason) {
    if (finished_ || closing_) {
      return;
    }
    closing_ = true;
    if (!open_) {
      // Still connecting: abandon the attempt; the pending step fails and
      // reports the end.
      cancel();
      return;
    }
    // A frozen peer never answers the close frame, and may not even take
    // the frames queued before it: give up after the close time-out.
    armDeadline(configuration_.closeTimeout, [](Session& self) {
      self.finished_ = true;
      self.cancel();
      if (auto transport = self.transport_.lock()) {
        transport->closed(abnormalClosure);
      }
    });
    closeReason_.code = static_cast<std::uint16_t>(code);
    if (reason) {
      closeReason_.reason.assign(reason->data(),
                                 std::min(reason->size(), closeReason_.reason.max_size()));
    }
    // Frames sent before the close go out first.
    if (!writing_) {
      startClose();
    }
  }

  // Ends the connection without any further report: the transport has moved
  // on to a new session or is gone. An open connection is closed politely.
  void detach() {
    if (finished_) {
      return;
    }
    finished_ = true;
    if (!open_) {
      cancel();
      return;
    }
    if (!closing_) {
      closing_ = true;
      withStream([&](auto& ws) {
        coalescing(ws).setMoreComing(false);
        ws.async_close(websocket::close_code::going_away, [self = shared_from_this()](error_code) {
          self->deadline_.cancel();
        });
      });
    }
    // A peer that never answers must not keep the connection open.
    deadline_.expires_after(configuration_.closeTimeout);
    deadline_.async_wait([self = shared_from_this()](error_code error) {
      if (!error) {
        self->cancel();
      }
    });
  }

 private:
  // The session runs on the main loop's context only, so its streams carry
  // that context's executor rather than a type-erased one.
  // Writes are gathered below TLS, so that the frames written while one
  // read's frames are handled leave in one system call.
  using Coalescing = platform::CoalescingStream<platform::LoopTcpStream>;
  using PlainStream = websocket::stream<Coalescing>;
  using SecureStream = websocket::stream<beast::ssl_stream<Coalescing>>;

  static Coalescing& coalescing(PlainStream& ws) { return ws.next_layer(); }
  static Coalescing& coalescing(SecureStream& ws) { return ws.next_layer().next_layer(); }

  template <class F>
  void withStream(F&& action) {
    if (secure_) {
      action(*secure_);
    } else if (plain_) {
      action(*plain_);
    }
  }

  // Runs `onExpiry` once `timeout` has passed, unless the session has ended
  // or another deadline replaced this one.
  template <class F>
  void armDeadline(std::chrono::milliseconds timeout, F onExpiry) {
    deadline_.expires_after(timeout);
    deadline_.async_wait([self = shared_from_this(), onExpiry](error_code error) {
      if (!error && !self->finished_) {
        onExpiry(*self);
      }
    });
  }

  static std::string joined(const std::vector<std::string>& items) {
    std::string text;
    for (const auto& item : items) {
      text += (text.empty() ? "" : ", ") + item;
    }
    return text;
  }

  bool isOffered(const std::string& answer) const {
    return std::find(subprotocols_.begin(), subprotocols_.end(), answer) != subprotocols_.end();
  }

  // The close code of a close frame received from the peer, if one was.
  std::optional<int> receivedCloseCode() {
    int code = 0;
    withStream([&](auto& ws) { code = ws.reason().code; });
    if (code == 0) {
      return std::nullopt;
    }
    return code;
  }

  void cancel() {
    deadline_.cancel();
    resolver_.cancel();
    withStream([](auto& ws) {
      error_code ignored;
      beast::get_lowest_layer(ws).socket().close(ignored);
    });
  }

  void onResolved(error_code error, const tcp::resolver::results_type& results) {
    if (finished_) {
      return;
    }
    if (error || closing_) {
      return fail(error ? error : asio::error::operation_aborted);
    }
    withStream([&](auto& ws) {
      auto& tcpStream = beast::get_lowest_layer(ws);
      tcpStream.async_connect(results, [self = shared_from_this()](error_code error, const auto&) {
        self->onConnected(error);
      });
    });
  }

  void onConnected(error_code error) {
    if (finished_) {
      return;
    }
    if (error) {
      return fail(error);
    }
    // Frames are small and latency matters more than packet count.
    withStream([](auto& ws) {
      error_code ignored;
      beast::get_lowest_layer(ws).socket().set_option(tcp::no_delay(true), ignored);
    });
    if (proxy_ && !tunnelOpen_) {
      return openTunnel();
    }
    if (!secure_) {
      return onTlsHandshake({});
    }
    auto& tls = secure_->next_layer();
    if (auto setUp = platform::prepareTlsHandshake(tls, endpoint_)) {
      return fail(setUp);
    }
    tls.async_handshake(ssl::stream_base::client, [self = shared_from_this()](error_code error) {
      self->onTlsHandshake(error);
    });
  }

  // Asks the proxy for a tunnel to the server, then goes on as if connected
  // to the server itself.
  void openTunnel() {
    withStream([&](auto& ws) {
      platform::openHttpTunnel(beast::get_lowest_layer(ws), *proxy_, endpoint_,
                               [self = shared_from_this()](error_code error, const std::string& description) {
                                 if (self->finished_) {
                                   return;
                                 }
                                 if (error) {
                                   return self->reportAbnormal({error, description}, std::nullopt);
                                 }
                                 self->tunnelOpen_ = true;
                                 self->onConnected({});
                               });
    });
  }

  void onTlsHandshake(error_code error) {
    if (finished_) {
      return;
    }
    if (error) {
      return fail(error);
    }
    withStream([&](auto& ws) {
      // The session's own deadlines limit the handshake and the close.
      websocket::stream_base::timeout timeouts{};
      timeouts.handshake_timeout = websocket::stream_base::none();
      timeouts.idle_timeout = websocket::stream_base::none();
      timeouts.keep_alive_pings = false;
      ws.set_option(timeouts);
      ws.set_option(websocket::stream_base::decorator(
          [offered = joined(subprotocols_)](websocket::request_type& request) {
            request.set(http::field::user_agent, "VantorClient");
            if (!offered.empty()) {
              request.set(http::field::sec_websocket_protocol, offered);
            }
          }));
      if (configuration_.perMessageDeflate) {
        websocket::permessage_deflate deflate;
        deflate.client_enable = true;
        ws.set_option(deflate);
      }
      ws.async_handshake(response_, endpoint_.hostHeader, endpoint_.target,
                         [self = shared_from_this()](error_code error) { self->onHandshake(error); });
    });
  }

  void onHandshake(error_code error) {
    if (error) {
      // A WebSocket-level refusal comes with the server's HTTP response.
      std::optional<HttpResponse> response;
      if (isWebSocketError(error)) {
        response = toHttpResponse(response_);
      }
      return fail(error, std::move(response));
    }
    if (finished_) {
      return;
    }
    if (!subprotocols_.empty() && !isOffered(std::string(response_[http::field::sec_websocket_protocol]))) {
      // The server must pick one of the offered subprotocols; a connection
      // it speaks some other way on is failed, as RFC 6455 requires.
      return fail(boost::system::errc::make_error_code(boost::system::errc::protocol_error),
                  toHttpResponse(response_));
    }
    open_ = true;
    if (!closing_) {
      deadline_.cancel();
    }
    withStream([](auto& ws) { ws.text(true); });
    if (auto transport = transport_.lock()) {
      transport->opened();
    }
    if (!outbox_.empty() && !writing_) {
      writeNext();
    } else if (closing_ && !writing_) {
      startClose();
    }
    read();
  }

  void read() {
    withStream([&](auto& ws) {
      ws.async_read(buffer_, [self = shared_from_this()](error_code error, std::size_t) {
        self->onRead(error);
      });
    });
  }

  void onRead(error_code error) {
    if (finished_) {
      return;
    }
    if (error == websocket::error::closed) {
      return reportClosed(receivedCloseCode().value_or(noStatusReceived));
    }
    if (error) {
      if (closing_ && error == asio::error::operation_aborted) {
        return;  // our own close reports the end
      }
      // A server may send its close frame and drop the connection without
      // waiting for our answer; that is still a close with its code.
      if (auto code = receivedCloseCode()) {
        return reportClosed(*code);
      }
      const auto transportError = TransportError::from(error);
      detail::writeLineToStandardOutput("Error when receiving " + transportError.description);
      return reportAbnormal(transportError, std::nullopt);
    }
    bool text = false;
    withStream([&](auto& ws) {
      text = ws.got_text();
      coalescing(ws).flushIfHeldLong();
    });
    if (text) {
      // Copied into a string kept from frame to frame, so that its storage
      // is reused; the flat buffer is contiguous.
      const auto data = buffer_.data();
      received_.assign(static_cast<const char*>(data.data()), data.size());
      buffer_.consume(buffer_.size());
      if (auto transport = transport_.lock()) {
        // Whatever the delegate does, the next frame must still be read.
        try {
          transport->received(received_);
        } catch (const std::exception& e) {
          detail::writeLineToStandardOutput(std::string("Error when delivering a message: ") + e.what());
        } catch (...) {
          detail::writeLineToStandardOutput("Error when delivering a message");
        }
      }
      if (received_.capacity() > keptFrameCapacity) {
        std::string().swap(received_);  // one large frame does not pin its size
      }
    } else {
      buffer_.consume(buffer_.size());
      detail::writeLineToStandardOutput("Data received. This method is unsupported by the Client");
    }
    if (!finished_ && !transport_.expired()) {
      read();
    }
  }

  void writeNext() {
    writing_ = true;
    withStream([&](auto& ws) {
      // The frames queued behind this one go out with it.
      coalescing(ws).setMoreComing(outbox_.size() > 1);
      // From here the stream's own count takes the frame's bytes over.
      uncount(outbox_.front().size());
      ws.async_write(asio::buffer(outbox_.front()),
                     [self = shared_from_this()](error_code error, std::size_t) {
                       self->onWritten(error);
                     });
    });
  }

  void onWritten(error_code error) {
    writing_ = false;
    withStream([](auto& ws) { coalescing(ws).setMoreComing(false); });
    if (error) {
      outbox_.pop_front();
      dropOutbox();  // the read side reports the broken connection
      return;
    }
    outbox_.pop_front();
    if (finished_) {
      return;
    }
    if (!outbox_.empty()) {
      writeNext();
    } else if (closing_) {
      startClose();
    }
  }

  void startClose() {
    withStream([&](auto& ws) {
      coalescing(ws).setMoreComing(false);
      ws.async_close(closeReason_,
                     [self = shared_from_this()](error_code error) { self->onClosed(error); });
    });
  }

  void onClosed(error_code error) {
    if (finished_) {
      return;
    }
    if (!error || error == websocket::error::closed) {
      return reportClosed(receivedCloseCode().value_or(noStatusReceived));
    }
    if (auto code = receivedCloseCode()) {
      return reportClosed(*code);
    }
    reportAbnormal(TransportError::from(error), std::nullopt);
  }

  void fail(error_code error, std::optional<HttpResponse> response = std::nullopt) {
    if (finished_) {
      return;
    }
    reportAbnormal(TransportError::from(error), std::move(response));
  }

  void reportClosed(int code) {
    finished_ = true;
    deadline_.cancel();
    if (auto transport = transport_.lock()) {
      transport->closed(code);
    }
  }

  void reportAbnormal(const TransportError& error, std::optional<HttpResponse> response) {
    finished_ = true;
    cancel();
    if (auto transport = transport_.lock()) {
      transport->abnormalErrorReceived(error, response);
    }
  }

  std::weak_ptr<URLSessionTransport> transport_;
  URLSessionConfiguration configuration_;
  std::vector<std::string> subprotocols_;
  NetworkTarget endpoint_;
  std::optional<platform::HttpProxy> proxy_;
  tcp::resolver resolver_;
  asio::steady_timer deadline_;
  std::shared_ptr<ssl::context> tls_;
  std::unique_ptr<PlainStream> plain_;
  std::unique_ptr<SecureStream> secure_;
  websocket::response_type response_;
  websocket::close_reason closeReason_;
  beast::flat_buffer buffer_;
  std::string received_;  // the last text frame read
  std::deque<std::string> outbox_;
  // The transport's count of bytes accepted and not yet handed to the
  // kernel: the outbox's frames, except one being written, and the stream's
  // gathered bytes.
  std::shared_ptr<std::atomic<std::uint64_t>> unsent_;

  void uncount(std::size_t size) { unsent_->fetch_sub(size, std::memory_order_relaxed); }

  void dropOutbox() {
    for (std::size_t i = writing_ ? 1 : 0; i < outbox_.size(); ++i) {
      uncount(outbox_[i].size());
    }
    outbox_.clear();
  }
  bool open_ = false;
  bool tunnelOpen_ = false;
  bool writing_ = false;
  bool closing_ = false;
  bool finished_ = false;
};

std::shared_ptr<URLSessionTransport> URLSessionTransport::make(
    boost::urls::url_view url, URLSessionConfiguration configuration) {
  auto text = replaceAll(std::string(url.buffer()), "http://", "ws://");
  text = replaceAll(std::move(text), "https://", "wss://");
  auto parsed = platform::parseUrl(text);
  if (!parsed) {
    platform::fatalError("URLSessionTransport: the URL " + text + " does not parse");
  }
  return std::shared_ptr<URLSessionTransport>(
      new URLSessionTransport(std::move(*parsed), std::move(configuration)));
}

URLSessionTransport::URLSessionTransport(boost::urls::url url, URLSessionConfiguration configuration)
    : url_(std::move(url)), configuration_(std::move(configuration)) {}

URLSessionTransport::~URLSessionTransport() {
  if (session_) {
    EventLoop::main().post([session = std::move(session_)] { session->detach(); });
  }
}

std::shared_ptr<PhoenixTransportDelegate> URLSessionTransport::delegate() const {
  std::lock_guard lock(mutex_);
  return delegate_;
}

void URLSessionTransport::setDelegate(std::shared_ptr<PhoenixTransportDelegate> delegate) {
  std::shared_ptr<PhoenixTransportDelegate> previous;
  {
    std::lock_guard lock(mutex_);
    previous = std::exchange(delegate_, std::move(delegate));
  }
  // `previous` is released outside the lock: its destructor may call back.
}

void URLSessionTransport::connect() {
  readyState_ = PhoenixTransportReadyState::connecting;
  std::shared_ptr<Session> session;
  std::shared_ptr<Session> previous;
  {
    std::lock_guard lock(mutex_);
    session = std::make_shared<Session>(weak_from_this(), configuration_, subprotocols_, unsent_);
    previous = std::exchange(session_, session);
  }
  // Posted even on the loop thread, so that no report reaches the delegate
  // from inside connect().
  queue([session, previous, url = url_] {
    if (previous) {
      previous->detach();
    }
    session->start(url);
  });
}

void URLSessionTransport::disconnect(int code, std::optional<std::string> reason) {
  readyState_ = PhoenixTransportReadyState::closing;
  std::shared_ptr<Session> session;
  {
    std::lock_guard lock(mutex_);
    session = session_;
  }
  if (session) {
    queue([session, code, reason = std::move(reason)]() mutable { session->close(code, std::move(reason)); });
  }
}

std::uint64_t URLSessionTransport::bufferedAmount() const {
  return unsent_->load(std::memory_order_relaxed);
}

void URLSessionTransport::setSubprotocols(std::vector<std::string> subprotocols) {
  std::lock_guard lock(mutex_);
  subprotocols_ = std::move(subprotocols);
}

void URLSessionTransport::send(std::string data) {
  if (!detail::isValidUtf8(data)) {
    platform::fatalError("URLSessionTransport: data to send is not valid UTF-8");
  }
  std::shared_ptr<Session> session;
  {
    std::lock_guard lock(mutex_);
    session = session_;
  }
  if (!session) {
    return;
  }
  unsent_->fetch_add(data.size(), std::memory_order_relaxed);
  // On the loop, with none of this transport's work still queued, writing at
  // once is what the queued write would do next: it skips the hop. Frames
  // sent while the open is being reported still go out after the report, so
  // that the server answers only once the delegate has finished with it.
  if (EventLoop::main().isCurrentThread() && !reportingOpen_ &&
      queued_.load(std::memory_order_acquire) == 0) {
    session->write(std::move(data));
    return;
  }
  queue([session, data = std::move(data)]() mutable { session->write(std::move(data)); });
}

template <class F>
void URLSessionTransport::queue(F&& work) {
  queued_.fetch_add(1, std::memory_order_acq_rel);
  EventLoop::main().post([transport = weak_from_this(), work = std::forward<F>(work)]() mutable {
    work();
    if (auto self = transport.lock()) {
      self->queued_.fetch_sub(1, std::memory_order_acq_rel);
    }
  });
}

void URLSessionTransport::opened() {
  readyState_ = PhoenixTransportReadyState::open;
  if (auto delegate = this->delegate()) {
    struct Reporting {
      bool& flag;
      explicit Reporting(bool& reporting) : flag(reporting) { flag = true; }
      ~Reporting() { flag = false; }
      Reporting(const Reporting&) = delete;
      Reporting& operator=(const Reporting&) = delete;
    } reporting(reportingOpen_);
    delegate->onOpen();
  }
}

void URLSessionTransport::received(const std::string& text) {
  if (auto delegate = this->delegate()) {
    delegate->onMessage(text);
  }
}

void URLSessionTransport::closed(int code) {
  readyState_ = PhoenixTransportReadyState::closed;
  if (auto delegate = this->delegate()) {
    delegate->onClose(code);
  }
}

void URLSessionTransport::abnormalErrorReceived(const TransportError& error,
                                                const std::optional<HttpResponse>& response) {
  readyState_ = PhoenixTransportReadyState::closed;
  if (auto delegate = this->delegate()) {
    delegate->onError(error, response);
  }
  // Read again: the error report may have cleared the delegate.
  if (auto delegate = this->delegate()) {
    delegate->onClose(999);
  }
}

}  // namespace vantor::realtime
