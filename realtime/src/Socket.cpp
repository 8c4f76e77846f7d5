#include "vantor/realtime/Socket.hpp"

#include <algorithm>
#include <boost/json/serialize.hpp>
#include <boost/url/encode.hpp>
#include <boost/url/rfc/unreserved_chars.hpp>
#include <charconv>

#include "Encoding.hpp"
#include "Guarded.hpp"
#include "Intervals.hpp"
#include "MetricCounters.hpp"
#include "Text.hpp"
#include "vantor/platform/Base64.hpp"
#include "vantor/platform/Fatal.hpp"
#include "vantor/platform/NetworkTarget.hpp"
#include "vantor/realtime/Channel.hpp"
#include "vantor/realtime/ChannelEvent.hpp"
#include "vantor/realtime/HeartbeatTimer.hpp"
#include "vantor/realtime/TimeoutTimer.hpp"
#include "vantor/realtime/URLSessionTransport.hpp"

namespace vantor::realtime {

namespace json = boost::json;

namespace detail {

std::string logText(const std::string& text) { return text; }
std::string logText(std::string_view text) { return std::string(text); }
std::string logText(const char* text) { return text; }
std::string logText(const Payload& payload) { return json::serialize(payload); }
std::string logText(const Message& message) { return message.description(); }
std::string logText(const std::optional<std::string>& text) { return text.value_or("nil"); }
std::string logText(const TransportError& error) { return error.description; }
std::string logText(const std::optional<HttpResponse>& response) {
  if (!response) {
    return "";
  }
  return "HTTP " + std::to_string(response->statusCode) + " " + response->reason;
}

std::string shortestDecimal(double seconds) {
  char buffer[64];
  auto [end, error] = std::to_chars(buffer, buffer + sizeof buffer, seconds);
  std::string text(buffer, error == std::errc() ? end : buffer);
  if (text.find_first_of(".eEn") == std::string::npos) {
    text += ".0";  // "5" reads as an integer; seconds are written as 5.0
  }
  return text;
}

}  // namespace detail

namespace {

constexpr std::string_view logPrefix = "VantorPhoenixClient: ";

// The plain text of a parameter value: strings as they are, other values as
// JSON.
std::string parameterText(const json::value& value) {
  switch (value.kind()) {
    case json::kind::string: return std::string(value.get_string());
    case json::kind::double_: return detail::shortestDecimal(value.get_double());
    default: return json::serialize(value);
  }
}

// Percent-encodes everything but the unreserved characters, so that every
// byte reads back the same through a form decoder: a "+" left as it is
// would come back as a space, breaking base64 tokens.
std::string queryText(std::string_view text) {
  return boost::urls::encode(text, boost::urls::unreserved_chars);
}

// The subprotocols that carry `token`: "phoenix", and the token in
// standard base64 without padding, which is how the server reads it back.
std::vector<std::string> authTokenSubprotocols(const std::string& token) {
  return {"phoenix", "base64url.bearer.phx." + platform::base64Encode(token, platform::Base64Alphabet::standard, false)};
}

}  // namespace

/// Forwards one transport's reports to the socket, holding it weakly so that
/// a transport never keeps its socket alive. Reports of a transport that is
/// no longer the socket's connection are dropped.
class Socket::TransportDelegate : public PhoenixTransportDelegate {
 public:
  TransportDelegate(std::weak_ptr<Socket> socket, const PhoenixTransport* transport)
      : socket_(std::move(socket)), transport_(transport) {}

  void onOpen() override {
    if (auto socket = current()) {
      socket->onConnectionOpen();
    }
  }
  void onError(const TransportError& error, const std::optional<HttpResponse>& response) override {
    if (auto socket = current()) {
      socket->onConnectionError(error, response);
    }
  }
  void onMessage(const std::string& message) override {
    if (auto socket = current()) {
      socket->onConnectionMessage(message);
    }
  }
  void onClose(int code) override {
    if (auto socket = current()) {
      socket->onConnectionClosed(code);
    }
  }

 private:
  std::shared_ptr<Socket> current() const {
    auto socket = socket_.lock();
    if (!socket || socket->connection_.get() != transport_) {
      return nullptr;
    }
    return socket;
  }

  std::weak_ptr<Socket> socket_;
  const PhoenixTransport* transport_;
};

template <class List, class... Arguments>
void Socket::callAll(List& list, std::string_view what, const Arguments&... arguments) {
  if (!list.snapshot) {
    list.snapshot = std::make_shared<const typename List::Entries>(list.entries);
  }
  const auto callbacks = list.snapshot;
  for (const auto& [ref, callback] : *callbacks) {
    detail::guarded(this, what, [&] { callback.call(arguments...); });
  }
}

std::optional<Socket::CloseCode> Socket::closeCode(int rawValue) noexcept {
  switch (rawValue) {
    case 999: return CloseCode::abnormal;
    case 1000: return CloseCode::normal;
    case 1001: return CloseCode::goingAway;
    default: return std::nullopt;
  }
}

Socket::CloseStatus Socket::closeStatus(CloseCode code) noexcept {
  switch (code) {
    case CloseCode::abnormal: return CloseStatus::abnormal;
    case CloseCode::normal: return CloseStatus::clean;
    case CloseCode::goingAway: return CloseStatus::temporary;
  }
  return CloseStatus::unknown;
}

std::shared_ptr<Socket> Socket::make(std::string endPoint, TransportFactory transport,
                                     ParamsClosure paramsClosure, std::string vsn) {
  return finishMaking(std::shared_ptr<Socket>(new Socket(
      std::move(endPoint), std::move(transport), std::move(paramsClosure), std::move(vsn))));
}

std::shared_ptr<Socket> Socket::make(std::string endPoint, std::optional<Payload> params,
                                     std::string vsn) {
  ParamsClosure closure;
  if (params) {
    closure = [params = std::move(params)] { return params; };
  }
  return make(std::move(endPoint), std::move(closure), std::move(vsn));
}

std::shared_ptr<Socket> Socket::make(std::string endPoint, ParamsClosure paramsClosure,
                                     std::string vsn) {
  return make(
      std::move(endPoint),
      [](const boost::urls::url& url) -> std::shared_ptr<PhoenixTransport> {
        return URLSessionTransport::make(url);
      },
      std::move(paramsClosure), std::move(vsn));
}

Socket::Socket(std::string endPoint, TransportFactory transport, ParamsClosure paramsClosure,
               std::string vsn)
    : endPoint_(std::move(endPoint)),
      endPointUrl_(buildEndpointUrl(endPoint_, paramsClosure, vsn)),
      paramsClosure_(std::move(paramsClosure)),
      transport_(std::move(transport)),
      counters_(std::make_unique<detail::MetricCounters>()),
      reconnectTimer_(TimeoutTimer::make()),
      vsn_(std::move(vsn)) {}

std::shared_ptr<Socket> Socket::finishMaking(std::shared_ptr<Socket> socket) {
  socket->reconnectTimer_->callback.delegate(socket, [](Socket& self) {
    if (self.pausedWhileOffline()) {
      return;
    }
    self.logItems("Socket attempting to reconnect");
    self.attemptReconnect();
  });
  socket->reconnectTimer_->timerCalculation.delegate(socket, [](Socket& self, const std::int64_t& tries) {
    double interval = Defaults::reconnectSteppedBackOff(tries);
    detail::guarded(&self, "reconnectAfter", [&] { interval = self.reconnectAfter_(tries); });
    detail::requireInterval("Socket reconnectAfter(" + std::to_string(tries) + ")", interval);
    self.logItems("Socket reconnecting in " + detail::shortestDecimal(interval) + "s");
    return interval;
  });
  platform::SystemEvents::shared().subscribe(
      [weakSocket = std::weak_ptr<Socket>(socket)](const platform::SystemEvents::Event& event) {
        auto self = weakSocket.lock();
        if (self) {
          self->onSystemEvent(event);
        }
        return self != nullptr;
      });
  return socket;
}

Socket::~Socket() {
  // Nothing else can reach a socket being destroyed: close its connection
  // without reporting to anybody.
  if (connection_) {
    connection_->setDelegate(nullptr);
    connection_->disconnect(static_cast<int>(CloseCode::normal), std::nullopt);
  }
}

std::optional<std::string> Socket::checkEndpoint(std::string_view endpoint) {
  const auto parsed = platform::parseUrl(endpoint);
  if (!parsed) {
    if (endpoint.find_first_of(" \t\r\n") != std::string_view::npos) {
      return "it contains a space; write it as %20";
    }
    if (endpoint.find("://") == std::string_view::npos) {
      return "it has no scheme; start it with ws://, wss://, http:// or https://";
    }
    return "it does not read as a URL";
  }
  if (!parsed->has_scheme()) {
    return "it has no scheme; start it with ws://, wss://, http:// or https://";
  }
  const auto scheme = parsed->scheme();
  if (scheme != "ws" && scheme != "wss" && scheme != "http" && scheme != "https") {
    return "its scheme is \"" + std::string(scheme) + "\"; use ws://, wss://, http:// or https://";
  }
  if (!parsed->has_authority() || parsed->encoded_host().empty()) {
    return "it has no host";
  }
  return std::nullopt;
}

boost::urls::url Socket::buildEndpointUrl(const std::string& endpoint,
                                          const ParamsClosure& paramsClosure,
                                          const std::string& vsn) {
  auto parsed = platform::parseUrl(endpoint);
  if (!parsed) {
    platform::fatalError("Malformed URL: " + endpoint);
  }
  auto& url = *parsed;
  // A substring test on purpose: a path that mentions "/websocket" anywhere
  // is taken as already pointing at the WebSocket endpoint.
  std::string path(url.encoded_path());
  if (path.find("/websocket") == std::string::npos) {
    if (path.empty() || path.back() != '/') {
      path += '/';
    }
    path += "websocket";
    url.set_encoded_path(path);
  }
  url.remove_query();
  auto query = url.encoded_params();
  query.append({queryText("vsn"), queryText(vsn)});
  if (paramsClosure) {
    if (auto params = paramsClosure()) {
      for (const auto& entry : *params) {
        query.append({queryText(entry.key()), queryText(parameterText(entry.value()))});
      }
    }
  }
  return std::move(url);
}

// --- Connection --------------------------------------------------------------

void Socket::connect() {
  platform::SystemEvents::shared().start();
  onLoop([&] {
    if (connection_ && connection_->readyState() == PhoenixTransportReadyState::open) {
      return;
    }
    closeStatus_ = CloseStatus::unknown;
    endPointUrl_ = buildEndpointUrl(endPoint_, paramsClosure_, vsn_);
    setConnection(transport_(endPointUrl_));
    if (authToken_) {
      connection_->setSubprotocols(authTokenSubprotocols(*authToken_));
    }
    connection_->setDelegate(std::make_shared<TransportDelegate>(weak_from_this(), connection_.get()));
    connection_->connect();
  });
}

void Socket::disconnect(CloseCode code, std::function<void()> callback) {
  onLoop([&] {
    closeStatus_ = closeStatus(code);
    reconnectTimer_->reset();
    reconnectPaused_ = false;
    teardown(code, callback);
  });
}

void Socket::teardown(CloseCode code, const std::function<void()>& callback) {
  // The delegate goes first, so this close is never reported back: no
  // channel errors, no reconnect.
  if (connection_) {
    connection_->setDelegate(nullptr);
    connection_->disconnect(static_cast<int>(code), std::nullopt);
  }
  setConnection(nullptr);
  if (heartbeatTimer_) {
    heartbeatTimer_->stop();
  }
  // The server forgets the channels with the connection: joined and joining
  // ones must join again, under new join references, once a connection
  // opens. No "phx_error" reaches their bindings: this close was asked for.
  const auto channels = channels_;
  for (const auto& channel : channels) {
    channel->socketDisconnected();
  }
  callAll(stateChangeCallbacks_.close, "close callback");
  if (callback) {
    callback();
  }
}

PhoenixTransportReadyState Socket::connectionState() const {
  return onLoop([&] {
    return connection_ ? connection_->readyState() : PhoenixTransportReadyState::closed;
  });
}

bool Socket::isConnected() const { return connectionState() == PhoenixTransportReadyState::open; }

// --- Messages ----------------------------------------------------------------

void Socket::push(std::string topic, std::string event, Payload payload,
                  std::optional<std::string> ref, std::optional<std::string> joinRef) {
  onLoop([&] {
    if (connection_ && connection_->readyState() == PhoenixTransportReadyState::open) {
      sendFrame(topic, event, payload, ref, joinRef);
      return;
    }
    bufferFrame(topic, event, payload, ref, joinRef);
  });
}

void Socket::pushFrame(const std::string& topic, const std::string& event, const Payload& payload,
                       const std::optional<std::string>& ref,
                       const std::optional<std::string>& joinRef) {
  onLoop([&] {
    if (connection_ && connection_->readyState() == PhoenixTransportReadyState::open) {
      sendFrame(topic, event, payload, ref, joinRef);
      return;
    }
    bufferFrame(topic, event, payload, ref, joinRef);
  });
}

void Socket::bufferFrame(const std::string& topic, const std::string& event, const Payload& payload,
                         const std::optional<std::string>& ref,
                         const std::optional<std::string>& joinRef) {
  // Encoded only when it is finally sent, so a later encoder applies; its
  // size is counted from its parts meanwhile.
  const std::uint64_t bytes = json::serialize(payload).size() + topic.size() + event.size() +
                              (ref ? ref->size() : 4) + (joinRef ? joinRef->size() : 4) + 16;
  sendBuffer_.push_back(
      {ref, [this, topic, event, payload, ref, joinRef] { sendFrame(topic, event, payload, ref, joinRef); }, bytes});
  sendBufferBytes_.fetch_add(bytes, std::memory_order_relaxed);
}

void Socket::setConnection(std::shared_ptr<PhoenixTransport> connection) {
  connection_ = connection;
  std::lock_guard lock(publishedMutex_);
  publishedConnection_ = std::move(connection);
}

std::uint64_t Socket::bufferedAmount() const {
  std::shared_ptr<PhoenixTransport> connection;
  {
    std::lock_guard lock(publishedMutex_);
    connection = publishedConnection_;
  }
  return sendBufferBytes_.load(std::memory_order_relaxed) + (connection ? connection->bufferedAmount() : 0);
}

void Socket::sendFrame(const std::string& topic, const std::string& event, const Payload& payload,
                       const std::optional<std::string>& ref,
                       const std::optional<std::string>& joinRef) {
  std::string data;
  if (!detail::guarded(this, "encoder", [&] {
        // The default encoder's text is written straight from the parts;
        // any other encoder is given the frame array.
        using Function = std::string (*)(const json::value&);
        if (const auto* function = encode_.target<Function>(); function && *function == &Defaults::encode) {
          data = detail::encodeFrame(joinRef, ref, topic, event, payload);
          return;
        }
        json::array frame{joinRef ? json::value(*joinRef) : json::value(nullptr),
                          ref ? json::value(*ref) : json::value(nullptr), json::value(topic),
                          json::value(event), json::value(payload)};
        data = encode_(frame);
      })) {
    return;  // logged; the frame cannot be sent
  }
  if (logger_) {
    logItems("push", "Sending " + (detail::isValidUtf8(data) ? data : std::string()));
  }
  if (connection_) {
    if (counters_->on()) {
      detail::MetricCounters::add(counters_->framesOut);
      detail::MetricCounters::add(counters_->bytesOut, data.size());
    }
    connection_->send(std::move(data));
  }
}

std::string Socket::makeRef() { return std::to_string(makeRefNumber()); }

std::uint64_t Socket::makeRefNumber() {
  return onLoop([&] {
    return ++ref_;  // wraps from the largest value to 0 by design
  });
}

void Socket::flushSendBuffer() {
  if (!connection_ || connection_->readyState() != PhoenixTransportReadyState::open ||
      sendBuffer_.empty()) {
    return;
  }
  auto buffered = std::exchange(sendBuffer_, {});
  for (auto& frame : buffered) {
    sendBufferBytes_.fetch_sub(frame.bytes, std::memory_order_relaxed);
    try {
      frame.callback();
    } catch (...) {
      // A failed send must not hold back the frames after it.
    }
  }
}

void Socket::removeFromSendBuffer(const std::optional<std::string>& ref) {
  onLoop([&] {
    std::erase_if(sendBuffer_, [&](const auto& frame) {
      if (frame.ref != ref) {
        return false;
      }
      sendBufferBytes_.fetch_sub(frame.bytes, std::memory_order_relaxed);
      return true;
    });
  });
}

// --- Callbacks -----------------------------------------------------------------

template <class Input>
std::string Socket::append(CallbackList<Input> StateChangeCallbacks::*list,
                           Delegated<Input, void> callback) {
  return onLoop([&] {
    auto ref = makeRef();
    auto& callbacks = stateChangeCallbacks_.*list;
    callbacks.entries.emplace_back(ref_, std::move(callback));
    callbacks.snapshot.reset();
    return ref;
  });
}

template std::string Socket::append(CallbackList<void> StateChangeCallbacks::*,
                                    Delegated<void, void>);
template std::string Socket::append(CallbackList<ErrorArguments> StateChangeCallbacks::*,
                                    Delegated<ErrorArguments, void>);
template std::string Socket::append(CallbackList<Message> StateChangeCallbacks::*,
                                    Delegated<Message, void>);

std::string Socket::onOpen(std::function<void()> callback) {
  Delegated<void, void> delegated;
  delegated.manuallyDelegate(std::move(callback));
  return append(&StateChangeCallbacks::open, std::move(delegated));
}

std::string Socket::onClose(std::function<void()> callback) {
  Delegated<void, void> delegated;
  delegated.manuallyDelegate(std::move(callback));
  return append(&StateChangeCallbacks::close, std::move(delegated));
}

std::string Socket::onError(ErrorCallback callback) {
  Delegated<ErrorArguments, void> delegated;
  delegated.manuallyDelegate([callback = std::move(callback)](const ErrorArguments& arguments) {
    callback(arguments.first, arguments.second);
  });
  return append(&StateChangeCallbacks::error, std::move(delegated));
}

std::string Socket::onMessage(std::function<void(const Message&)> callback) {
  Delegated<Message, void> delegated;
  delegated.manuallyDelegate(std::move(callback));
  return append(&StateChangeCallbacks::message, std::move(delegated));
}

void Socket::releaseCallbacks() {
  onLoop([&] { stateChangeCallbacks_ = {}; });
}

void Socket::off(const std::vector<std::string>& refs) {
  onLoop([&] {
    // References are the decimal text of their number; other texts match none.
    std::vector<std::uint64_t> numbers;
    for (const auto& ref : refs) {
      std::uint64_t number = 0;
      const auto [end, error] = std::from_chars(ref.data(), ref.data() + ref.size(), number);
      if (error == std::errc{} && end == ref.data() + ref.size() && std::to_string(number) == ref) {
        numbers.push_back(number);
      }
    }
    auto listed = [&](const auto& entry) {
      return std::find(numbers.begin(), numbers.end(), entry.first) != numbers.end();
    };
    auto erase = [&](auto& callbacks) {
      if (std::erase_if(callbacks.entries, listed) != 0) {
        callbacks.snapshot.reset();
      }
    };
    erase(stateChangeCallbacks_.open);
    erase(stateChangeCallbacks_.close);
    erase(stateChangeCallbacks_.error);
    erase(stateChangeCallbacks_.message);
  });
}

// --- Channels ------------------------------------------------------------------

std::shared_ptr<Channel> Socket::channel(const std::string& topic, Payload params) {
  return onLoop([&] {
    auto made = Channel::make(topic, std::move(params), shared_from_this());
    channels_.push_back(made);
    auto& sameTopic = channelsByTopic_[topic];
    if (!sameTopic.only && !sameTopic.several) {
      sameTopic.only = made;
    } else {
      auto all = sameTopic.all();
      all.push_back(made);
      sameTopic.several = std::make_shared<const std::vector<std::shared_ptr<Channel>>>(std::move(all));
      sameTopic.only.reset();
    }
    return made;
  });
}

void Socket::remove(const std::shared_ptr<Channel>& channel) {
  onLoop([&] {
    off(channel->stateChangeRefs());
    // The channel object itself, not every channel that shares its join
    // reference: channels that never joined, or that dropped theirs at a
    // disconnect, all have none.
    if (std::erase(channels_, channel) == 0) {
      return;
    }
    auto byTopic = channelsByTopic_.find(channel->topic());
    if (byTopic == channelsByTopic_.end()) {
      return;
    }
    auto& sameTopic = byTopic->second;
    auto all = sameTopic.all();
    std::erase(all, channel);
    sameTopic.only.reset();
    sameTopic.several.reset();
    if (all.empty()) {
      channelsByTopic_.erase(byTopic);
    } else if (all.size() == 1) {
      sameTopic.only = std::move(all.front());
    } else {
      sameTopic.several = std::make_shared<const std::vector<std::shared_ptr<Channel>>>(std::move(all));
    }
  });
}

void Socket::leaveOpenTopic(const std::string& topic) {
  onLoop([&] {
    auto byTopic = channelsByTopic_.find(topic);
    if (byTopic == channelsByTopic_.end()) {
      return;
    }
    const auto sameTopic = byTopic->second.all();
    auto duplicate = std::find_if(sameTopic.begin(), sameTopic.end(), [&](const auto& channel) {
      return channel->isJoined() || channel->isJoining();
    });
    if (duplicate != sameTopic.end()) {
      auto channel = *duplicate;  // leaving may unregister it
      logItems("transport", "leaving duplicate topic: [" + topic + "]");
      channel->leave(Defaults::timeoutInterval);
    }
  });
}

std::vector<std::shared_ptr<Channel>> Socket::channels() const {
  return onLoop([&] { return channels_; });
}

// --- Heartbeat -------------------------------------------------------------------

void Socket::resetHeartbeat() {
  pendingHeartbeatRef_.reset();
  if (heartbeatTimer_) {
    heartbeatTimer_->stop();
    heartbeatTimer_.reset();
  }
  if (skipHeartbeat_) {
    return;
  }
  heartbeatTimer_ =
      std::make_unique<HeartbeatTimer>(heartbeatInterval_, Defaults::heartbeatQueue(), heartbeatLeeway_);
  heartbeatTimer_->start([weakSelf = weak_from_this()] {
    if (auto self = weakSelf.lock()) {
      self->sendHeartbeat();
    }
  });
}

void Socket::pushHeartbeat() {
  pendingHeartbeatRef_ = makeRef();
  heartbeatSentAt_ = std::chrono::steady_clock::now();
  push("phoenix", std::string(ChannelEvent::heartbeat), Payload{}, pendingHeartbeatRef_);
}

void Socket::sendHeartbeat() {
  if (connection_ && connection_->readyState() == PhoenixTransportReadyState::open) {
    if (!pendingHeartbeatRef_) {
      pushHeartbeat();
    } else {
      // The last heartbeat got no reply within one interval. The delegate
      // stays set, so the close comes back through onConnectionClosed and
      // reconnects.
      pendingHeartbeatRef_.reset();
      logItems("transport", "heartbeat timeout. Attempting to re-establish connection");
      closeStatus_ = CloseStatus::abnormal;
      connection_->disconnect(static_cast<int>(CloseCode::normal), "heartbeat timeout");
    }
  }
  // The desktop's clocks, compared at every heartbeat, tell a sleep where
  // nothing else reports it; the check it starts then rides on the
  // heartbeat just sent.
  platform::SystemEvents::shared().heartbeatTick();
}

// --- Sleep, wake and network changes ------------------------------------------------

void Socket::checkConnection() {
  onLoop([&] { checkLink(); });
}

void Socket::onSystemEvent(const platform::SystemEvents::Event& event) {
  using Kind = platform::SystemEvents::Kind;
  auto count = [this](detail::MetricCounters::Counter& counter) {
    if (counters_->on()) {
      detail::MetricCounters::add(counter);
    }
  };
  switch (event.kind) {
    case Kind::resumed:
      count(counters_->resumes);
      logItems("system", "resumed from sleep (" + event.detail + "): checking the connection");
      checkLink();
      break;
    case Kind::offline:
      count(counters_->networkChanges);
      logItems("system", "offline: reconnects paused");
      break;
    case Kind::online:
    case Kind::networkChanged:
      count(counters_->networkChanges);
      logItems("system", event.kind == Kind::online ? "online: reconnecting now"
                                                    : "network changed (" + event.detail + "): checking the connection");
      checkLink();
      break;
    case Kind::unavailable:
      logItems("system", event.detail);
      break;
  }
}

void Socket::checkLink() {
  if (connection_ && connection_->readyState() == PhoenixTransportReadyState::open) {
    // A heartbeat already on its way answers the check as well.
    if (!pendingHeartbeatRef_) {
      pushHeartbeat();
    }
    if (linkCheck_) {
      linkCheck_->cancel();
    }
    linkCheck_ = platform::DispatchWorkItem::make([weakSelf = weak_from_this(), ref = *pendingHeartbeatRef_] {
      if (auto self = weakSelf.lock(); self && self->pendingHeartbeatRef_ == ref) {
        self->reconnectNow("no answer to the connection check within " +
                           detail::shortestDecimal(self->linkCheckTimeout_) + "s");
      }
    });
    platform::EventLoop::main().asyncAfter(
        std::chrono::milliseconds(static_cast<std::int64_t>(std::llround(linkCheckTimeout_ * 1000))), linkCheck_);
    return;
  }
  if (reconnectPaused_ || reconnectTimer_->isPending()) {
    reconnectNow("reconnecting at once");
  }
}

void Socket::reconnectNow(const std::string& why) {
  logItems("transport", why);
  // As after a close that the transport reported: channels error and will
  // rejoin. The old connection is dropped without waiting for its close
  // handshake, which a dead link never completes.
  pendingHeartbeatRef_.reset();
  closeStatus_ = CloseStatus::abnormal;
  triggerChannelError();
  if (heartbeatTimer_) {
    heartbeatTimer_->stop();
  }
  reconnectTimer_->reset();
  if (pausedWhileOffline()) {
    teardown(CloseCode::normal, nullptr);
    return;
  }
  attemptReconnect();
}

bool Socket::pausedWhileOffline() {
  reconnectPaused_ = platform::SystemEvents::shared().isOffline();
  if (reconnectPaused_) {
    logItems("Socket reconnect paused: the desktop reports no connectivity");
  }
  return reconnectPaused_;
}

void Socket::attemptReconnect() {
  if (counters_->on()) {
    detail::MetricCounters::add(counters_->reconnects);
  }
  teardown(CloseCode::normal, [this] {
    // A parameters closure or transport factory that throws must not end
    // reconnecting: the next attempt follows on the back-off.
    if (!detail::guarded(this, "connect", [&] { connect(); })) {
      reconnectTimer_->scheduleTimeout();
    }
  });
}

// --- Transport events ----------------------------------------------------------

void Socket::onConnectionOpen() {
  logItems("transport", "Connected to " + endPoint_);
  closeStatus_ = CloseStatus::unknown;
  reconnectPaused_ = false;
  flushSendBuffer();
  reconnectTimer_->reset();
  resetHeartbeat();
  callAll(stateChangeCallbacks_.open, "open callback");
}

void Socket::onConnectionError(const TransportError& error,
                               const std::optional<HttpResponse>& response) {
  logItems("transport", error, response);
  triggerChannelError();
  callAll(stateChangeCallbacks_.error, "error callback", ErrorArguments{error, response});
}

void Socket::onConnectionClosed(int /*code*/) {
  logItems("transport", "close");
  triggerChannelError();
  if (heartbeatTimer_) {
    heartbeatTimer_->stop();
  }
  if (closeStatus_ == CloseStatus::unknown || closeStatus_ == CloseStatus::abnormal) {
    reconnectTimer_->scheduleTimeout();
  }
  callAll(stateChangeCallbacks_.close, "close callback");
}

void Socket::triggerChannelError() {
  auto channels = channels_;
  for (const auto& channel : channels) {
    const auto state = channel->state();
    if (state != ChannelState::errored && state != ChannelState::leaving &&
        state != ChannelState::closed) {
      channel->trigger(std::string(ChannelEvent::error), Payload{});
    }
  }
}

void Socket::onConnectionMessage(const std::string& rawMessage) {
  if (counters_->on()) {
    detail::MetricCounters::add(counters_->framesIn);
    detail::MetricCounters::add(counters_->bytesIn, rawMessage.size());
  }
  logItems("receive ", rawMessage);
  std::optional<Message> message;
  std::optional<json::value> decoded;
  detail::guarded(this, "decoder", [&] { decoded = decode_(rawMessage); });
  if (decoded && decoded->is_array()) {
    if (decoded->get_array().size() < 5 && dropsMalformedInput_) {
      droppedMalformedInput("a frame of fewer than five elements", rawMessage);
      return;
    }
    message = Message::fromJson(std::move(decoded->get_array()));
  }
  if (!message) {
    logItems("receive: Unable to parse JSON: " + rawMessage);
    return;
  }
  if (pendingHeartbeatRef_ && *pendingHeartbeatRef_ == message->ref()) {
    pendingHeartbeatRef_.reset();
    if (heartbeatRoundTrip_) {
      const auto callback = heartbeatRoundTrip_;  // held: it may replace itself
      const auto roundTrip = std::chrono::steady_clock::now() - heartbeatSentAt_;
      detail::guarded(this, "heartbeat round-trip callback", [&] { (*callback)(roundTrip); });
    }
  }
  if (message->event() == ChannelEvent::close) {
    detail::writeLineToStandardOutput("Close Event Received");
  }
  // Only channels of the frame's topic can be members; they are asked in
  // order of creation, on a snapshot, as handling may add or remove channels.
  if (auto byTopic = channelsByTopic_.find(message->topic()); byTopic != channelsByTopic_.end()) {
    auto route = [&](const std::shared_ptr<Channel>& channel) {
      if (channel->isMember(*message)) {
        channel->trigger(*message);
      }
    };
    if (const auto several = byTopic->second.several) {
      for (const auto& channel : *several) {
        route(channel);
      }
    } else if (const auto only = byTopic->second.only) {
      route(only);
    }
  }
  callAll(stateChangeCallbacks_.message, "message callback", *message);
}

// --- Properties and options ----------------------------------------------------

boost::urls::url Socket::endPointUrl() const {
  return onLoop([&] { return endPointUrl_; });
}

std::optional<Payload> Socket::params() const {
  return onLoop([&] { return paramsClosure_ ? paramsClosure_() : std::nullopt; });
}

std::string Socket::websocketProtocol() const {
  return onLoop([&]() -> std::string {
    if (!endPointUrl_.has_scheme()) {
      return "";
    }
    const std::string scheme(endPointUrl_.scheme());
    if (scheme == "https") {
      return "wss";
    }
    if (scheme == "http") {
      return "ws";
    }
    return scheme;
  });
}

Socket::CloseStatus Socket::closeStatus() const {
  return onLoop([&] { return closeStatus_; });
}

double Socket::timeout() const {
  return onLoop([&] { return timeout_; });
}
void Socket::setTimeout(double seconds) {
  detail::requireInterval("Socket timeout", seconds);
  onLoop([&] { timeout_ = seconds; });
}
double Socket::heartbeatInterval() const {
  return onLoop([&] { return heartbeatInterval_; });
}
void Socket::setHeartbeatInterval(double seconds) {
  detail::requireInterval("Socket heartbeatInterval", seconds, true);
  onLoop([&] { heartbeatInterval_ = seconds; });
}
std::chrono::nanoseconds Socket::heartbeatLeeway() const {
  return onLoop([&] { return heartbeatLeeway_; });
}
void Socket::setHeartbeatLeeway(std::chrono::nanoseconds leeway) {
  onLoop([&] { heartbeatLeeway_ = leeway; });
}
double Socket::linkCheckTimeout() const {
  return onLoop([&] { return linkCheckTimeout_; });
}
void Socket::setLinkCheckTimeout(double seconds) {
  detail::requireInterval("Socket linkCheckTimeout", seconds, true);
  onLoop([&] { linkCheckTimeout_ = seconds; });
}
bool Socket::skipHeartbeat() const {
  return onLoop([&] { return skipHeartbeat_; });
}
void Socket::setSkipHeartbeat(bool skip) {
  onLoop([&] { skipHeartbeat_ = skip; });
}
void Socket::setReconnectAfter(BackOff backOff) {
  onLoop([&] { reconnectAfter_ = std::move(backOff); });
}
double Socket::reconnectAfter(std::int64_t tries) const {
  return onLoop([&] { return reconnectAfter_(tries); });
}
void Socket::setRejoinAfter(BackOff backOff) {
  onLoop([&] { rejoinAfter_ = std::move(backOff); });
}
double Socket::rejoinAfter(std::int64_t tries) const {
  return onLoop([&] { return rejoinAfter_(tries); });
}
void Socket::setLogger(Logger logger) {
  onLoop([&] {
    logger_ = logger ? std::make_shared<const Logger>(std::move(logger)) : nullptr;
  });
}
void Socket::setEncoder(Encoder encode) {
  onLoop([&] { encode_ = std::move(encode); });
}
void Socket::setDecoder(Decoder decode) {
  onLoop([&] { decode_ = std::move(decode); });
}
void Socket::setCollectsMetrics(bool collect) { counters_->enabled = collect; }
bool Socket::collectsMetrics() const { return counters_->on(); }
ConnectionMetrics Socket::metrics() const { return counters_->read(); }
void Socket::onHeartbeatRoundTrip(std::function<void(std::chrono::nanoseconds)> callback) {
  onLoop([&] {
    heartbeatRoundTrip_ =
        callback ? std::make_shared<const std::function<void(std::chrono::nanoseconds)>>(std::move(callback))
                 : nullptr;
  });
}
void Socket::countRejoin() {
  onLoop([&] {
    if (counters_->on()) {
      detail::MetricCounters::add(counters_->rejoins);
    }
  });
}
void Socket::countPushOutcome(std::string_view status) {
  onLoop([&] {
    if (!counters_->on()) {
      return;
    }
    if (status == "ok") {
      detail::MetricCounters::add(counters_->pushesOk);
    } else if (status == "error") {
      detail::MetricCounters::add(counters_->pushesError);
    } else if (status == "timeout") {
      detail::MetricCounters::add(counters_->pushesTimeout);
    }
  });
}
std::optional<std::string> Socket::authToken() const {
  return onLoop([&] { return authToken_; });
}
void Socket::setAuthToken(std::optional<std::string> token) {
  onLoop([&] { authToken_ = std::move(token); });
}
bool Socket::dropsMalformedInput() const {
  return onLoop([&] { return dropsMalformedInput_; });
}
void Socket::setDropsMalformedInput(bool drop) {
  onLoop([&] { dropsMalformedInput_ = drop; });
}
void Socket::droppedMalformedInput(std::string_view what, const std::string& text) {
  onLoop([&] {
    if (counters_->on()) {
      detail::MetricCounters::add(counters_->malformedDropped);
    }
    logItems("receive: Dropped " + std::string(what) + ": " + text);
  });
}
bool Socket::disableSSLCertValidation() const {
  return onLoop([&] { return disableSSLCertValidation_; });
}
void Socket::setDisableSSLCertValidation(bool disable) {
  onLoop([&] { disableSSLCertValidation_ = disable; });
}
std::optional<std::vector<std::uint16_t>> Socket::enabledSSLCipherSuites() const {
  return onLoop([&] { return enabledSSLCipherSuites_; });
}
void Socket::setEnabledSSLCipherSuites(std::optional<std::vector<std::uint16_t>> suites) {
  onLoop([&] { enabledSSLCipherSuites_ = std::move(suites); });
}

void Socket::log(const std::string& line) const {
  std::string prefixed(logPrefix);
  prefixed += line;
  // Held for the call: the logger may replace itself.
  const auto logger = logger_;
  try {
    (*logger)(prefixed);
  } catch (...) {
    // A logger that throws has nowhere to report to; the line is lost.
  }
}

}  // namespace vantor::realtime
