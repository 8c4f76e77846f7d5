// The only translation unit of the test servers that includes Beast: the
// protocol server is built on the hooks and sends of this one.
#include <algorithm>
#include "vantor/testing/WebSocketTestServer.hpp"

#include <boost/asio/executor_work_guard.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/ssl.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/beast/core.hpp>
#include <boost/beast/http.hpp>
#include <boost/beast/ssl.hpp>
#include <boost/beast/websocket.hpp>
#include <boost/beast/websocket/ssl.hpp>

#include <array>
#include <atomic>
#include <condition_variable>
#include <deque>
#include <map>
#include <mutex>
#include <thread>
#include <unordered_map>
#include <utility>

#include "Recorder.hpp"
#include "RunLoop.hpp"

namespace vantor::testing {
namespace {

namespace asio = boost::asio;
namespace beast = boost::beast;
namespace http = beast::http;
namespace ssl = asio::ssl;
namespace websocket = beast::websocket;
using tcp = asio::ip::tcp;
using ConnectionId = WebSocketTestServer::ConnectionId;

// Long enough never to trip in a healthy test, short enough that a stalled
// client does not hold a connection for the rest of the run.
constexpr auto kHandshakeTimeout = std::chrono::seconds(10);
constexpr std::size_t kMaxMessageSize = 1 << 20;
// Frames queued and not yet written, over all connections, above which calls
// from test threads wait (bounded, so a client that stopped reading cannot
// stall the test).
constexpr std::size_t kBacklogLimit = 256;
constexpr auto kBacklogWait = std::chrono::seconds(2);

struct Outgoing {
  // closeAndDrop: a close frame written as raw bytes, then the TCP connection
  // shut down without waiting for the answer.
  enum class Kind { text, binary, close, closeAndDrop } kind;
  std::string data;  // the payload, or the close reason
  std::uint16_t code = 0;
};

class Session;

// Everything of the server that lives on its thread. Outside the public class
// so that the sessions, in this file's anonymous namespace, can name it.
class ServerCore {
 public:
  using Options = WebSocketTestServer::Options;
  using CloseFrame = WebSocketTestServer::CloseFrame;

  explicit ServerCore(Options options);
  ~ServerCore() { stop(); }
  void stop();
  ServerCore(const ServerCore&) = delete;
  ServerCore& operator=(const ServerCore&) = delete;

  // Called by sessions, on the server thread.
  void recordTarget(const std::string& target);
  std::optional<int> screen(const std::string& target);
  void opened(const std::shared_ptr<Session>& session, const std::string& target);
  void closeFrameReceived(ConnectionId id, const websocket::close_reason& reason);
  void finished(std::uint64_t key, std::optional<ConnectionId> id);
  void backlogChanged(std::ptrdiff_t delta);

  // Any thread: run on the server thread and wait.
  void execute(const std::function<void()>& work);
  // On every open connection, or on `id` only.
  void forOpen(const std::function<void(Session&)>& action);
  void forOpen(ConnectionId id, const std::function<void(Session&)>& action);
  void shutDown(std::uint16_t code);

  // Declared first so that it is destroyed after everything that refers to it.
  std::optional<ssl::context> tls_;
  asio::io_context io_;
  std::uint16_t port_ = 0;

  // Server-thread state.
  std::optional<int> refusal_;
  bool stall_ = false;
  // Set: close each upgrade at once, with the code or (inner nullopt) a drop.
  std::optional<std::optional<std::uint16_t>> closeAfterUpgrade_;
  Options options_;  // only `echo` changes after construction (server thread)
  std::atomic<bool> stopped_{false};

  struct Records {
    std::size_t connections = 0;
    std::size_t open = 0;
    std::vector<CloseFrame> closeFrames;
    std::vector<std::string> targets;
  };
  Recorder<Records> records_;

 private:
  void accept();

  tcp::acceptor acceptor_;
  std::uint64_t nextKey_ = 0;
  ConnectionId nextId_ = 0;
  std::unordered_map<std::uint64_t, std::shared_ptr<Session>> sessions_;
  std::map<ConnectionId, std::weak_ptr<Session>> open_;

  std::mutex backlogMutex_;
  std::condition_variable backlogDrained_;
  std::size_t backlog_ = 0;

  asio::executor_work_guard<asio::io_context::executor_type> work_;
  std::thread thread_;
};

// One accepted TCP connection, from its TLS and HTTP handshake until it ends.
// Lives on the server thread; its handlers keep it alive.
class Session : public std::enable_shared_from_this<Session> {
 public:
  virtual ~Session() = default;
  // Set by the server when it accepts the upgrade, before any hook runs.
  std::optional<ConnectionId> id;
  virtual void start() = 0;
  virtual void enqueue(Outgoing item) = 0;
  virtual void drop() = 0;
};

template <class NextLayer>
class StreamSession final : public Session {
  static constexpr bool kTls = !std::is_same_v<NextLayer, beast::tcp_stream>;

 public:
  template <class... Args>
  StreamSession(ServerCore& server, std::uint64_t key, Args&&... args)
      : server_(server), key_(key), ws_(std::forward<Args>(args)...), idle_(server.io_) {}

  void start() override {
    beast::get_lowest_layer(ws_).expires_after(kHandshakeTimeout);
    if constexpr (kTls) {
      ws_.next_layer().async_handshake(ssl::stream_base::server,
                                       [self = self()](beast::error_code ec) {
                                         if (ec) {
                                           return self->finish();
                                         }
                                         self->readRequest();
                                       });
    } else {
      readRequest();
    }
  }

  void enqueue(Outgoing item) override {
    if (!id || finished_ || closeQueued_) {
      return;
    }
    closeQueued_ = item.kind == Outgoing::Kind::close || item.kind == Outgoing::Kind::closeAndDrop;
    queue_.push_back(std::move(item));
    server_.backlogChanged(1);
    writeNext();
  }

  void drop() override {
    if (finished_) {
      return;
    }
    beast::error_code ignored;
    beast::get_lowest_layer(ws_).socket().shutdown(tcp::socket::shutdown_both, ignored);
    beast::get_lowest_layer(ws_).close();
  }

 private:
  std::shared_ptr<StreamSession> self() {
    return std::static_pointer_cast<StreamSession>(shared_from_this());
  }

  void readRequest() {
    parser_.emplace();
    parser_->header_limit(8 * 1024);
    parser_->body_limit(8 * 1024 * 1024);
    http::async_read(ws_.next_layer(), buffer_, *parser_,
                     [self = self()](beast::error_code ec, std::size_t) {
                       if (ec) {
                         return self->finish();
                       }
                       self->onRequest();
                     });
  }

  void onRequest() {
    const auto& request = parser_->get();
    if (!websocket::is_upgrade(request)) {
      if (server_.options_.hooks.onHttp) {
        return answerHttp();
      }
      return refuse(400, "a WebSocket upgrade was expected\n");
    }
    target_ = std::string(request.target());
    server_.recordTarget(target_);
    if (server_.stall_) {
      return stall();
    }
    if (auto status = server_.screen(target_)) {
      return refuse(*status, "handshake refused by the test server\n");
    }
    beast::get_lowest_layer(ws_).expires_never();
    ws_.set_option(
        websocket::stream_base::timeout{kHandshakeTimeout, websocket::stream_base::none(), false});
    ws_.read_message_max(kMaxMessageSize);
    // Recorded before the close reply goes out, so that a client whose close
    // handshake completed finds its frame recorded. Answers to the server's
    // own close are not recorded. The stream owns the callback: no `self`.
    ws_.control_callback([this](websocket::frame_type kind, beast::string_view) {
      armIdleTimer();
      if (kind == websocket::frame_type::close && !closeQueued_ && id) {
        server_.closeFrameReceived(*id, ws_.reason());
      }
    });
    // Counted before the 101 goes out: a client that has seen its connection
    // open must find it registered, for example when a test closes it next.
    // Frames queued meanwhile wait for the upgrade to finish.
    auto closeAfterUpgrade = server_.closeAfterUpgrade_;
    if (server_.options_.permessageDeflate) {
      websocket::permessage_deflate deflate;
      deflate.server_enable = true;
      ws_.set_option(deflate);
    }
    if (const auto& choose = server_.options_.hooks.chooseSubprotocol) {
      auto answer = choose(std::string(request[http::field::sec_websocket_protocol]));
      ws_.set_option(websocket::stream_base::decorator([answer](websocket::response_type& response) {
        if (answer) {
          response.set(http::field::sec_websocket_protocol, *answer);
        }
      }));
    }
    server_.opened(self(), target_);
    ws_.async_accept(request, [self = self(), closeAfterUpgrade](beast::error_code ec) {
      if (ec) {
        return self->finish();
      }
      self->upgraded_ = true;
      if (closeAfterUpgrade && *closeAfterUpgrade) {
        self->enqueue({Outgoing::Kind::close, {}, **closeAfterUpgrade});
      } else if (closeAfterUpgrade) {
        self->drop();
      }
      self->writeNext();
      self->readNext();
      self->armIdleTimer();
    });
  }

  // Never answers the upgrade request; reads on only to notice the client
  // leaving.
  void stall() {
    beast::get_lowest_layer(ws_).expires_never();
    ws_.next_layer().async_read_some(
        asio::buffer(stallBuffer_), [self = self()](beast::error_code ec, std::size_t) {
          if (ec) {
            return self->finish();
          }
          self->stall();
        });
  }

  // (Re)starts the idle time-out; every frame that arrives calls it.
  void armIdleTimer() {
    if (!server_.options_.idleTimeout || finished_) {
      return;
    }
    idle_.expires_after(*server_.options_.idleTimeout);
    idle_.async_wait([self = self(), generation = ++idleGeneration_](beast::error_code ec) {
      if (ec || generation != self->idleGeneration_ || self->finished_) {
        return;
      }
      self->enqueue({Outgoing::Kind::closeAndDrop, {}, 1002});
    });
  }

  // A plain request for the protocol server; its answer may come later
  // (a long poll), so the handshake time-out no longer applies.
  void answerHttp() {
    const auto& request = parser_->get();
    WebSocketTestServer::HttpRequest plain;
    plain.method = std::string(request.method_string());
    plain.target = std::string(request.target());
    plain.contentType = std::string(request[http::field::content_type]);
    for (const auto& field : request) {
      std::string name(field.name_string());
      std::transform(name.begin(), name.end(), name.begin(),
                     [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
      plain.headers[name] = std::string(field.value());
    }
    plain.body = request.body();
    beast::get_lowest_layer(ws_).expires_never();
    auto answered = std::make_shared<bool>(false);
    const bool keepAlive = server_.options_.httpKeepAlive.count() > 0 && request.keep_alive();
    server_.options_.hooks.onHttp(plain, [self = self(), answered, keepAlive](int status, const std::string& contentType,
                                                                              std::string body) {
      if (!std::exchange(*answered, true)) {
        self->refuse(status, std::move(body), contentType, keepAlive);
      }
    });
  }

  void refuse(int status, std::string body, const std::string& contentType = "text/plain", bool keepAlive = false) {
    response_.emplace(static_cast<http::status>(status), parser_->get().version());
    response_->set(http::field::content_type, contentType);
    response_->keep_alive(keepAlive);
    response_->body() = std::move(body);
    response_->prepare_payload();
    http::async_write(
        ws_.next_layer(), *response_, [self = self(), keepAlive](beast::error_code ec, std::size_t) {
          if (keepAlive && !ec && !self->finished_) {
            // The next request may come on this connection; idle, it closes.
            beast::get_lowest_layer(self->ws_).expires_after(self->server_.options_.httpKeepAlive);
            return self->readRequest();
          }
          // Half-close first so that the client reads the whole
          // response rather than a reset.
          beast::error_code ignored;
          beast::get_lowest_layer(self->ws_).socket().shutdown(tcp::socket::shutdown_send, ignored);
          self->finish();
        });
  }

  void readNext() {
    ws_.async_read(readBuffer_, [self = self()](beast::error_code ec, std::size_t) {
      if (ec) {
        return self->finish();
      }
      auto data = beast::buffers_to_string(self->readBuffer_.data());
      self->readBuffer_.consume(self->readBuffer_.size());
      self->armIdleTimer();
      if (self->ws_.got_text()) {  // binary frames are ignored
        if (self->server_.options_.echo) {
          self->enqueue({Outgoing::Kind::text, data});
        }
        if (const auto& onText = self->server_.options_.hooks.onText) {
          onText(*self->id, data);
        }
      }
      self->readNext();
    });
  }

  void writeNext() {
    if (!upgraded_ || writing_ || queue_.empty() || finished_) {
      return;
    }
    writing_ = true;
    current_ = std::move(queue_.front());
    queue_.pop_front();
    if (current_.kind == Outgoing::Kind::close) {
      // The pending read ends with `closed` once the client answers.
      auto code = static_cast<websocket::close_code>(current_.code);
      ws_.async_close(websocket::close_reason(code, current_.data),
                      [self = self()](beast::error_code) {
                        self->writing_ = false;
                        self->server_.backlogChanged(-1);
                      });
      return;
    }
    if (current_.kind == Outgoing::Kind::closeAndDrop) {
      // Written past Beast, which would wait for the client's answer. A
      // server frame is unmasked: FIN + close opcode, length, code.
      current_.data = {static_cast<char>(0x88), 2, static_cast<char>(current_.code >> 8),
                       static_cast<char>(current_.code & 0xff)};
      asio::async_write(ws_.next_layer(), asio::buffer(current_.data),
                        [self = self()](beast::error_code, std::size_t) {
                          self->writing_ = false;
                          self->server_.backlogChanged(-1);
                          self->drop();
                        });
      return;
    }
    ws_.text(current_.kind == Outgoing::Kind::text);
    ws_.async_write(asio::buffer(current_.data),
                    [self = self()](beast::error_code ec, std::size_t) {
                      self->writing_ = false;
                      self->server_.backlogChanged(-1);
                      if (!ec) {
                        self->writeNext();
                      }
                    });
  }

  void finish() {
    if (finished_) {
      return;
    }
    finished_ = true;
    idle_.cancel();
    server_.backlogChanged(-static_cast<std::ptrdiff_t>(queue_.size()));
    queue_.clear();
    beast::get_lowest_layer(ws_).close();
    server_.finished(key_, id);
  }

  ServerCore& server_;
  std::uint64_t key_;
  websocket::stream<NextLayer> ws_;
  beast::flat_buffer buffer_;
  std::optional<http::request_parser<http::string_body>> parser_;
  std::optional<http::response<http::string_body>> response_;
  std::string target_;
  beast::flat_buffer readBuffer_;
  std::deque<Outgoing> queue_;
  Outgoing current_{Outgoing::Kind::text, {}, 0};
  bool upgraded_ = false;
  bool writing_ = false;
  bool closeQueued_ = false;
  bool finished_ = false;
  std::array<char, 512> stallBuffer_{};
  asio::steady_timer idle_;
  std::uint64_t idleGeneration_ = 0;
};

using PlainSession = StreamSession<beast::tcp_stream>;
using TlsSession = StreamSession<ssl::stream<beast::tcp_stream>>;

ServerCore::ServerCore(Options options)
    : options_(std::move(options)), acceptor_(io_), work_(asio::make_work_guard(io_)) {
  if (options_.tls) {
    tls_.emplace(ssl::context::tls_server);
    tls_->set_options(ssl::context::default_workarounds | ssl::context::no_sslv2 |
                      ssl::context::no_sslv3 | ssl::context::no_tlsv1 | ssl::context::no_tlsv1_1);
    tls_->use_certificate_chain(asio::buffer(options_.tls->serverCertificatePem));
    tls_->use_private_key(asio::buffer(options_.tls->serverPrivateKeyPem), ssl::context::pem);
  }
  port_ = detail::listen(acceptor_, options_.address, options_.port);
  accept();
  thread_ = std::thread([this] { detail::runUntilStopped(io_, "WebSocketTestServer"); });
}

void ServerCore::stop() {
  if (stopped_.exchange(true)) {
    return;
  }
  asio::post(io_, [this] {
    beast::error_code ignored;
    acceptor_.close(ignored);
    for (auto& [key, session] : sessions_) {
      session->drop();
    }
    // Completions of the drops are not run: no hook may fire from here on.
    io_.stop();
  });
  thread_.join();
  // Handlers still queued in the context hold sessions too; they go when the
  // context is destroyed.
  open_.clear();
  sessions_.clear();
  records_.update([](Records& r) { r.open = 0; });
}

void ServerCore::accept() {
  acceptor_.async_accept([this](beast::error_code ec, tcp::socket socket) {
    if (ec == asio::error::operation_aborted) {
      return;
    }
    if (!ec) {
      // Replies go out at once rather than waiting to be coalesced.
      beast::error_code ignored;
      socket.set_option(tcp::no_delay(true), ignored);
      auto key = nextKey_++;
      std::shared_ptr<Session> session;
      if (tls_) {
        session = std::make_shared<TlsSession>(*this, key, std::move(socket), *tls_);
      } else {
        session = std::make_shared<PlainSession>(*this, key, std::move(socket));
      }
      sessions_.emplace(key, session);
      session->start();
    }
    accept();
  });
}

void ServerCore::recordTarget(const std::string& target) {
  if (!options_.recordConnections) {
    return;
  }
  records_.update([&](Records& r) { r.targets.push_back(target); });
}

std::optional<int> ServerCore::screen(const std::string& target) {
  if (refusal_) {
    return refusal_;
  }
  if (options_.hooks.screenHandshake) {
    return options_.hooks.screenHandshake(target);
  }
  return std::nullopt;
}

void ServerCore::opened(const std::shared_ptr<Session>& session, const std::string& target) {
  auto id = nextId_++;
  session->id = id;
  open_.emplace(id, session);
  records_.update([](Records& r) {
    ++r.connections;
    ++r.open;
  });
  if (options_.hooks.onOpen) {
    options_.hooks.onOpen(id, target);
  }
}

void ServerCore::closeFrameReceived(ConnectionId id, const websocket::close_reason& reason) {
  if (!options_.recordConnections) {
    return;
  }
  records_.update([&](Records& r) {
    r.closeFrames.push_back({id, static_cast<std::uint16_t>(reason.code),
                             std::string(reason.reason.data(), reason.reason.size())});
  });
}

void ServerCore::finished(std::uint64_t key, std::optional<ConnectionId> id) {
  sessions_.erase(key);
  if (!id) {
    return;
  }
  open_.erase(*id);
  // Hook first, so that a test waiting for the count to drop also sees what
  // the hook did.
  if (options_.hooks.onClosed) {
    options_.hooks.onClosed(*id);
  }
  records_.update([](Records& r) { --r.open; });
}

void ServerCore::forOpen(const std::function<void(Session&)>& action) {
  execute([&] {
    // Copy first: an action may end a connection and so change the map.
    std::vector<std::shared_ptr<Session>> sessions;
    for (auto& [id, weak] : open_) {
      if (auto session = weak.lock()) {
        sessions.push_back(std::move(session));
      }
    }
    for (auto& session : sessions) {
      action(*session);
    }
  });
}

void ServerCore::forOpen(ConnectionId id, const std::function<void(Session&)>& action) {
  execute([&] {
    if (auto it = open_.find(id); it != open_.end()) {
      if (auto session = it->second.lock()) {
        action(*session);
      }
    }
  });
}

void ServerCore::shutDown(std::uint16_t code) {
  execute([&] {
    beast::error_code ignored;
    acceptor_.close(ignored);
    std::vector<std::shared_ptr<Session>> sessions;
    for (auto& [key, session] : sessions_) {
      sessions.push_back(session);
    }
    for (auto& session : sessions) {
      if (session->id) {
        session->enqueue({Outgoing::Kind::closeAndDrop, {}, code});
      } else {
        session->drop();
      }
    }
  });
}

void ServerCore::backlogChanged(std::ptrdiff_t delta) {
  bool drained = false;
  {
    std::lock_guard lock(backlogMutex_);
    backlog_ = static_cast<std::size_t>(static_cast<std::ptrdiff_t>(backlog_) + delta);
    drained = delta < 0 && backlog_ < kBacklogLimit;
  }
  if (drained) {
    backlogDrained_.notify_all();
  }
}

void ServerCore::execute(const std::function<void()>& work) {
  if (stopped_) {
    return;
  }
  if (!io_.get_executor().running_in_this_thread()) {
    std::unique_lock lock(backlogMutex_);
    backlogDrained_.wait_for(lock, kBacklogWait, [&] { return backlog_ < kBacklogLimit; });
  }
  detail::runOn(io_, work);
}

}  // namespace

class WebSocketTestServer::Impl : public ServerCore {
 public:
  using ServerCore::ServerCore;
};

WebSocketTestServer::WebSocketTestServer() : WebSocketTestServer(Options{}) {}

WebSocketTestServer::WebSocketTestServer(Options options)
    : impl_(std::make_unique<Impl>(std::move(options))) {}

WebSocketTestServer::~WebSocketTestServer() = default;

void WebSocketTestServer::stop() { impl_->stop(); }

std::uint16_t WebSocketTestServer::port() const { return impl_->port_; }

std::string WebSocketTestServer::url(std::string_view pathAndQuery) const {
  return detail::url(impl_->tls_.has_value(), impl_->options_.address, port(), pathAndQuery);
}

void WebSocketTestServer::setEcho(bool echo) {
  impl_->execute([&] { impl_->options_.echo = echo; });
}

void WebSocketTestServer::refuseHandshake(std::optional<int> httpStatus) {
  impl_->execute([&] { impl_->refusal_ = httpStatus; });
}

void WebSocketTestServer::stallHandshakes(bool stall) {
  impl_->execute([&] { impl_->stall_ = stall; });
}

void WebSocketTestServer::closeAfterUpgrade(std::optional<std::uint16_t> code) {
  impl_->execute([&] { impl_->closeAfterUpgrade_ = code; });
}

void WebSocketTestServer::acceptHandshakes() {
  impl_->execute([&] {
    impl_->refusal_.reset();
    impl_->stall_ = false;
    impl_->closeAfterUpgrade_.reset();
  });
}

bool WebSocketTestServer::waitForConnections(std::size_t count,
                                             std::chrono::milliseconds timeout) const {
  return impl_->records_.waitFor(timeout, [&](const auto& r) { return r.connections >= count; });
}

bool WebSocketTestServer::waitForOpenConnections(std::size_t count,
                                                 std::chrono::milliseconds timeout) const {
  return impl_->records_.waitFor(timeout, [&](const auto& r) { return r.open == count; });
}

std::size_t WebSocketTestServer::openConnections() const {
  return impl_->records_.read([](const auto& r) { return r.open; });
}

std::size_t WebSocketTestServer::connectionCount() const {
  return impl_->records_.read([](const auto& r) { return r.connections; });
}

void WebSocketTestServer::sendText(std::string text) {
  impl_->forOpen([&](Session& s) { s.enqueue({Outgoing::Kind::text, text}); });
}

void WebSocketTestServer::sendBinary(std::string bytes) {
  impl_->forOpen([&](Session& s) { s.enqueue({Outgoing::Kind::binary, bytes}); });
}

void WebSocketTestServer::closeWith(std::uint16_t code, std::string reason) {
  impl_->forOpen([&](Session& s) { s.enqueue({Outgoing::Kind::close, reason, code}); });
}

void WebSocketTestServer::dropConnections() {
  impl_->forOpen([](Session& s) { s.drop(); });
}

void WebSocketTestServer::closeAndDrop(std::uint16_t code) {
  impl_->forOpen([&](Session& s) { s.enqueue({Outgoing::Kind::closeAndDrop, {}, code}); });
}

void WebSocketTestServer::shutDown(std::uint16_t code) { impl_->shutDown(code); }

void WebSocketTestServer::sendTextTo(ConnectionId connection, std::string text) {
  impl_->forOpen(connection, [&](Session& s) { s.enqueue({Outgoing::Kind::text, std::move(text)}); });
}

void WebSocketTestServer::dropConnection(ConnectionId connection) {
  impl_->forOpen(connection, [](Session& s) { s.drop(); });
}

void WebSocketTestServer::closeConnectionWith(ConnectionId connection, std::uint16_t code,
                                              std::string reason) {
  impl_->forOpen(connection,
                [&](Session& s) { s.enqueue({Outgoing::Kind::close, std::move(reason), code}); });
}

std::vector<WebSocketTestServer::CloseFrame> WebSocketTestServer::receivedCloseFrames() const {
  return impl_->records_.read([](const auto& r) { return r.closeFrames; });
}

std::vector<std::string> WebSocketTestServer::handshakeTargets() const {
  return impl_->records_.read([](const auto& r) { return r.targets; });
}

void WebSocketTestServer::execute(const std::function<void()>& work) const { impl_->execute(work); }

void WebSocketTestServer::runAfter(std::chrono::milliseconds delay, std::function<void()> work) {
  auto* impl = impl_.get();
  asio::post(impl->io_, [impl, delay, work = std::move(work)]() mutable {
    auto timer = std::make_shared<asio::steady_timer>(impl->io_, delay);
    timer->async_wait([timer, work = std::move(work)](beast::error_code ec) {
      if (!ec) {
        work();
      }
    });
  });
}

}  // namespace vantor::testing
