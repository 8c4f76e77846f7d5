#pragma once

#include <boost/json/value.hpp>
#include <boost/url/url.hpp>
#include <chrono>
#include <atomic>
#include <concepts>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>
#include <vector>

#include "vantor/platform/DispatchWorkItem.hpp"
#include "vantor/platform/EventLoop.hpp"
#include "vantor/platform/SystemEvents.hpp"
#include "vantor/realtime/ConnectionMetrics.hpp"
#include "vantor/realtime/Defaults.hpp"
#include "vantor/realtime/Delegated.hpp"
#include "vantor/realtime/Message.hpp"
#include "vantor/realtime/Payload.hpp"
#include "vantor/realtime/PhoenixTransport.hpp"

namespace vantor::realtime {

class Channel;
class HeartbeatTimer;
class TimeoutTimer;

namespace detail {
struct MetricCounters;
std::string logText(const std::string& text);
std::string logText(std::string_view text);
std::string logText(const char* text);
std::string logText(const Payload& payload);
std::string logText(const Message& message);
std::string logText(const std::optional<std::string>& text);
std::string logText(const TransportError& error);
std::string logText(const std::optional<HttpResponse>& response);
/// The shortest decimal text that reads back as `seconds`, with at least
/// one digit after the point: 0.01 gives "0.01", 5 gives "5.0".
std::string shortestDecimal(double seconds);
}  // namespace detail

/// The realtime client's connection: one WebSocket at a time to a server
/// that speaks the Phoenix Channels protocol (serializer "2.0.0").
///
/// A socket builds its endpoint URL, buffers outbound frames while it is
/// not connected, hands out message references, keeps the connection alive
/// with heartbeats, reconnects with a stepped back-off after an unexpected
/// close, routes every received message to its channels and reports open,
/// close, error and message events to registered callbacks.
///
/// Make sockets with `make`; they are shared objects. Releasing the last
/// reference closes the connection without calling any callback, and never
/// waits for the event loop: it may happen on any thread, the loop's own
/// included, also before a host-run loop has started.
///
/// Callbacks of the application (socket callbacks, channel bindings, push
/// hooks, presence callbacks, the logger, encoder, decoder, parameters
/// closure and back-off functions) may throw: the exception is logged as
/// one line through the logger and dropped, and the next callback and the
/// next frame are handled as usual. Any of them may replace or remove
/// itself while it runs; the change applies from the next event on.
///
/// Thread safety: every public member may be called from any thread while
/// traffic flows. The socket lives on the main event loop: calls from other
/// threads are carried onto it and wait for it, and every callback runs on
/// the loop thread. Do not call into a socket from another thread while
/// holding a lock that a callback of yours takes.
class Socket : public std::enable_shared_from_this<Socket> {
 public:
  /// Close codes the client sends.
  enum class CloseCode : int { abnormal = 999, normal = 1000, goingAway = 1001 };
  /// Why the connection is closing or closed; only `unknown` and `abnormal`
  /// lead to a reconnect.
  enum class CloseStatus { unknown, clean, abnormal, temporary };

  using ParamsClosure = std::function<std::optional<Payload>()>;
  using TransportFactory = std::function<std::shared_ptr<PhoenixTransport>(const boost::urls::url&)>;
  using Encoder = std::function<std::string(const boost::json::value&)>;
  using Decoder = std::function<std::optional<boost::json::value>(std::string_view)>;
  using BackOff = std::function<double(std::int64_t)>;
  using Logger = std::function<void(const std::string&)>;
  using ErrorCallback =
      std::function<void(const TransportError&, const std::optional<HttpResponse>&)>;

  /// The code for a raw value; only 999, 1000 and 1001 have one.
  static std::optional<CloseCode> closeCode(int rawValue) noexcept;
  static CloseStatus closeStatus(CloseCode code) noexcept;

  /// A socket for `endPoint` (ws, wss, http or https URL) whose transport
  /// comes from `transport`, with parameters from `paramsClosure` (asked at
  /// every `connect()`), sending `vsn`.
  static std::shared_ptr<Socket> make(std::string endPoint, TransportFactory transport,
                                      ParamsClosure paramsClosure = nullptr,
                                      std::string vsn = std::string(Defaults::vsn));
  /// A socket over `URLSessionTransport` with the default configuration and
  /// fixed parameters.
  static std::shared_ptr<Socket> make(std::string endPoint, std::optional<Payload> params = {},
                                      std::string vsn = std::string(Defaults::vsn));
  /// A socket over `URLSessionTransport` with the default configuration.
  static std::shared_ptr<Socket> make(std::string endPoint, ParamsClosure paramsClosure,
                                      std::string vsn = std::string(Defaults::vsn));

  /// The URL a socket connects to: `endpoint` with "/websocket" appended to
  /// its path unless the path already contains it, and the query replaced by
  /// `vsn` followed by one item per parameter (its value's plain text).
  /// Names and values are percent-encoded except for unreserved characters,
  /// so every byte (a "+" in a base64 token, "&", "=", "#", spaces, UTF-8)
  /// reads back unchanged through a standard form decoder. An endpoint that
  /// does not parse stops the process ("Malformed URL: ...").
  static boost::urls::url buildEndpointUrl(const std::string& endpoint,
                                           const ParamsClosure& paramsClosure,
                                           const std::string& vsn);

  /// Why `endpoint` cannot be used, or nothing when it can: an endpoint that
  /// does not parse (no scheme, a space) would stop the process in `make`,
  /// and one without a host, or with a scheme other than ws, wss, http or
  /// https, would never connect. For URLs from users and settings: check
  /// first, and show the reason instead of stopping.
  [[nodiscard]] static std::optional<std::string> checkEndpoint(std::string_view endpoint);

  ~Socket();
  Socket(const Socket&) = delete;
  Socket& operator=(const Socket&) = delete;

  // --- Connection ---------------------------------------------------------

  /// Opens a connection unless one is open: rebuilds the endpoint URL (so
  /// the parameters are fetched afresh) and starts a new transport.
  void connect();

  /// Closes the connection with `code` and does not reconnect. The close
  /// callbacks run, then `callback`. Channels stay registered; a later
  /// `connect()` works again. Joined and joining channels go `errored`
  /// without a "phx_error" to their bindings, and join again, under new join
  /// references, once a later `connect()` opens; pushes made meanwhile are
  /// buffered until then.
  void disconnect(CloseCode code = CloseCode::normal, std::function<void()> callback = nullptr);

  [[nodiscard]] PhoenixTransportReadyState connectionState() const;
  [[nodiscard]] bool isConnected() const;

  /// Checks the connection at once. When connected, a heartbeat must be
  /// answered within `linkCheckTimeout()`, or the connection is dropped
  /// without a close handshake and a new one opened (channels rejoin as
  /// after any drop); a healthy connection is kept. When waiting to
  /// reconnect, the attempt is made now, from the first step of the
  /// back-off. Otherwise (never connected, `disconnect()`ed, connecting)
  /// it does nothing.
  ///
  /// Sockets do this by themselves when the desktop reports (see
  /// platform::SystemEvents) a resume from sleep, a change of network, or
  /// connectivity back after none. While it reports no connectivity, they
  /// make no reconnect attempts at all.
  void checkConnection();

  // --- Callbacks ----------------------------------------------------------
  // Each returns the callback's reference (drawn from `makeRef`), for `off`.
  // Plain forms hold the callback strongly; `delegate…` forms hold the owner
  // weakly and skip the callback once the owner is gone.

  std::string onOpen(std::function<void()> callback);
  /// Close callbacks take no code and run at each of three moments: when
  /// the connection reports its close (after a failure too, following the
  /// error callbacks), when a reconnect attempt tears the closed connection
  /// down before connecting again, and on `disconnect()`. So each refused
  /// connection attempt that is retried runs them twice; count errors, or
  /// opens, to count attempts.
  std::string onClose(std::function<void()> callback);
  std::string onError(ErrorCallback callback);
  std::string onMessage(std::function<void(const Message&)> callback);

  template <class Owner, std::invocable<Owner&> F>
  std::string delegateOnOpen(const std::shared_ptr<Owner>& owner,
                             F callback);
  template <class Owner, std::invocable<Owner&> F>
  std::string delegateOnClose(const std::shared_ptr<Owner>& owner,
                              F callback);
  template <class Owner, std::invocable<Owner&, const TransportError&, const std::optional<HttpResponse>&> F>
  std::string delegateOnError(
      const std::shared_ptr<Owner>& owner,
      F callback);
  template <class Owner, std::invocable<Owner&, const Message&> F>
  std::string delegateOnMessage(const std::shared_ptr<Owner>& owner,
                                F callback);

  /// Empties all four callback lists.
  void releaseCallbacks();
  /// Removes the callbacks with these references from all four lists.
  void off(const std::vector<std::string>& refs);

  // --- Channels -----------------------------------------------------------

  /// Makes a new channel on `topic` bound to this socket and registers it.
  /// Never reuses an existing channel of the same topic.
  std::shared_ptr<Channel> channel(const std::string& topic, Payload params = {});
  /// The registered channels, in order of creation.
  [[nodiscard]] std::vector<std::shared_ptr<Channel>> channels() const;

  // --- Properties and options --------------------------------------------
  // Options take effect for what happens after they are set.

  [[nodiscard]] const std::string& endPoint() const noexcept { return endPoint_; }
  [[nodiscard]] const std::string& vsn() const noexcept { return vsn_; }
  [[nodiscard]] boost::urls::url endPointUrl() const;
  /// The parameters from the parameters closure, if any.
  [[nodiscard]] std::optional<Payload> params() const;
  /// "wss" for https, "ws" for http, other schemes unchanged, "" for none.
  [[nodiscard]] std::string websocketProtocol() const;
  [[nodiscard]] CloseStatus closeStatus() const;

  [[nodiscard]] double timeout() const;
  void setTimeout(double seconds);
  [[nodiscard]] double heartbeatInterval() const;
  void setHeartbeatInterval(double seconds);
  [[nodiscard]] std::chrono::nanoseconds heartbeatLeeway() const;
  void setHeartbeatLeeway(std::chrono::nanoseconds leeway);
  [[nodiscard]] bool skipHeartbeat() const;
  void setSkipHeartbeat(bool skip);
  /// How long `checkConnection` waits for the heartbeat's reply: 1 s by default.
  [[nodiscard]] double linkCheckTimeout() const;
  void setLinkCheckTimeout(double seconds);
  void setReconnectAfter(BackOff backOff);
  /// The reconnect delay in seconds for an attempt (from 1).
  [[nodiscard]] double reconnectAfter(std::int64_t tries) const;
  void setRejoinAfter(BackOff backOff);
  /// The channel rejoin delay in seconds for an attempt (from 1).
  [[nodiscard]] double rejoinAfter(std::int64_t tries) const;
  /// Receives every log line, prefixed "VantorPhoenixClient: "; absent by
  /// default, and then nothing is logged. Three lines go to standard output
  /// instead, whatever the logger: "Close Event Received" for each
  /// "phx_close" frame the server sends (after every leave, for one), "Data
  /// received. This method is unsupported by the Client" for a binary
  /// frame, and "Error when receiving " with the error when a connection
  /// breaks. A terminal application shows them among its own output.
  void setLogger(Logger logger);
  void setEncoder(Encoder encode);
  void setDecoder(Decoder decode);
  /// A token for the server's `connect` callback, sent in the WebSocket
  /// handshake instead of the URL (which proxies and servers log): the
  /// socket offers the subprotocols "phoenix" and "base64url.bearer.phx."
  /// followed by the token in standard base64 without "=" padding. Any
  /// bytes round-trip. Absent by default; applies from the next `connect()`.
  [[nodiscard]] std::optional<std::string> authToken() const;
  void setAuthToken(std::optional<std::string> token);
  /// What to do with the few inputs that otherwise stop the process: a
  /// decoded frame of fewer than five elements, and presence data with a
  /// presence lacking "metas" or a meta lacking a string "phx_ref". By
  /// default (false) they stop it, as programming errors of the server.
  /// When true they are dropped instead: one log line, a count in
  /// `metrics().malformedDropped`, the connection stays up and the next
  /// frame is handled as usual. Recommended for applications that talk to
  /// servers or proxies they do not control.
  [[nodiscard]] bool dropsMalformedInput() const;
  void setDropsMalformedInput(bool drop);
  /// Kept for the application; the socket does not read them.
  [[nodiscard]] bool disableSSLCertValidation() const;
  void setDisableSSLCertValidation(bool disable);
  [[nodiscard]] std::optional<std::vector<std::uint16_t>> enabledSSLCipherSuites() const;
  void setEnabledSSLCipherSuites(std::optional<std::vector<std::uint16_t>> suites);

  // --- Metrics --------------------------------------------------------------

  /// Starts or stops counting frames, bytes, reconnects, rejoins and push
  /// outcomes into `metrics()`. Off by default.
  void setCollectsMetrics(bool collect);
  [[nodiscard]] bool collectsMetrics() const;
  /// The counts so far. Any thread may call it at any time; it does not wait
  /// for the event loop.
  [[nodiscard]] ConnectionMetrics metrics() const;
  /// Bytes pushed and not yet handed to the network: frames held while the
  /// socket is not connected (counted by their text's size before they are
  /// encoded), frames queued in the transport, and bytes gathered for the
  /// next system call. A producer that sends faster than the network takes
  /// can pause while this is high. Any thread may call it at any time; it
  /// does not wait for the event loop.
  [[nodiscard]] std::uint64_t bufferedAmount() const;
  /// Called on the event loop with the round-trip time of every heartbeat
  /// that gets its reply: from handing the heartbeat to the transport to
  /// receiving the reply. Replaces the previous callback; nullptr removes it.
  void onHeartbeatRoundTrip(std::function<void(std::chrono::nanoseconds)> callback);

  /// Logs `items` joined with ", " when a logger is set.
  template <class... Items>
  void logItems(const Items&... items) const;

  // --- Steps the client's own types call on each other --------------------
  // Sockets, channels, pushes and presence work together through these.
  // They are public because they are part of the documented interface; an
  // application has no need to call them.

  /// Sends the frame [joinRef, ref, topic, event, payload] now when
  /// connected, otherwise buffers it until the next open. A buffered frame
  /// is encoded when it is finally sent.
  void push(std::string topic, std::string event, Payload payload,
            std::optional<std::string> ref = std::nullopt,
            std::optional<std::string> joinRef = std::nullopt);
  /// As `push`, for parts the caller keeps: a frame that goes out at once
  /// is encoded straight from them, and only a buffered frame copies them.
  void pushFrame(const std::string& topic, const std::string& event, const Payload& payload,
                 const std::optional<std::string>& ref, const std::optional<std::string>& joinRef);

  /// The next reference: the decimal text of a 64-bit counter shared by
  /// message and callback references. The first is "1"; after the largest
  /// value the counter wraps to "0".
  std::string makeRef();
  /// As `makeRef`, as the number itself: pushes keep their reference as a
  /// number, so they take it without the text.
  std::uint64_t makeRefNumber();

  /// Unregisters `channel`, and the socket callbacks it registered. Other
  /// channels stay, whatever their join references.
  void remove(const std::shared_ptr<Channel>& channel);
  /// Makes the first joined or joining channel of `topic`, if any, leave.
  void leaveOpenTopic(const std::string& topic);
  /// Withdraws buffered frames whose reference is `ref`.
  void removeFromSendBuffer(const std::optional<std::string>& ref);
  /// Logs and counts input dropped under `dropsMalformedInput`: `what` it
  /// was, and the offending text.
  void droppedMalformedInput(std::string_view what, const std::string& text);
  /// Counts into `metrics()` a join sent again, and a push outcome by its
  /// status ("ok", "error", "timeout"; others are not counted).
  void countRejoin();
  void countPushOutcome(std::string_view status);

 private:
  friend struct SocketTestAccess;
  class TransportDelegate;
  using ErrorArguments = std::pair<TransportError, std::optional<HttpResponse>>;

  template <class Input>
  struct CallbackList {
    // Each callback with the number of its reference.
    using Entries = std::vector<std::pair<std::uint64_t, Delegated<Input, void>>>;
    Entries entries;
    // A copy of `entries` for calling them, made at the first call after a
    // change and shared by the calls until the next change.
    std::shared_ptr<const Entries> snapshot;
  };

  struct StateChangeCallbacks {
    CallbackList<void> open;
    CallbackList<void> close;
    CallbackList<ErrorArguments> error;
    CallbackList<Message> message;
  };

  struct BufferedFrame {
    std::optional<std::string> ref;
    std::function<void()> callback;
    std::uint64_t bytes = 0;
  };

  // Holds a frame until the connection opens, counted in bufferedAmount().
  void bufferFrame(const std::string& topic, const std::string& event, const Payload& payload,
                   const std::optional<std::string>& ref, const std::optional<std::string>& joinRef);
  // Replaces the connection, here and for readers on other threads.
  void setConnection(std::shared_ptr<PhoenixTransport> connection);

  Socket(std::string endPoint, TransportFactory transport, ParamsClosure paramsClosure,
         std::string vsn);
  static std::shared_ptr<Socket> finishMaking(std::shared_ptr<Socket> socket);

  template <class F>
  auto onLoop(F&& work) const {
    return platform::EventLoop::main().sync(std::forward<F>(work));
  }

  template <class Input>
  std::string append(CallbackList<Input> StateChangeCallbacks::*list,
                     Delegated<Input, void> callback);
  void log(const std::string& line) const;
  /// Calls every callback of `list` (a snapshot: callbacks may add or remove
  /// callbacks); one that throws is logged and the next one still runs.
  template <class List, class... Arguments>
  void callAll(List& list, std::string_view what, const Arguments&... arguments);

  /// Encodes the frame and hands it to the connection, if there is one.
  void sendFrame(const std::string& topic, const std::string& event, const Payload& payload,
                 const std::optional<std::string>& ref, const std::optional<std::string>& joinRef);
  void teardown(CloseCode code, const std::function<void()>& callback);
  void flushSendBuffer();
  void resetHeartbeat();
  void sendHeartbeat();
  void pushHeartbeat();
  void triggerChannelError();
  // Desktop events, and what they make the socket do.
  void onSystemEvent(const platform::SystemEvents::Event& event);
  void checkLink();
  void reconnectNow(const std::string& why);
  // True, the reconnect paused and logged, while the desktop reports no
  // connectivity.
  bool pausedWhileOffline();
  // One attempt: the closed connection torn down, a new one opened.
  void attemptReconnect();

  // Transport reports, through TransportDelegate.
  void onConnectionOpen();
  void onConnectionError(const TransportError& error, const std::optional<HttpResponse>& response);
  void onConnectionMessage(const std::string& rawMessage);
  void onConnectionClosed(int code);

  // Everything below lives on the main loop.
  const std::string endPoint_;
  boost::urls::url endPointUrl_;
  const ParamsClosure paramsClosure_;
  const TransportFactory transport_;
  Encoder encode_ = &Defaults::encode;
  Decoder decode_ = &Defaults::decode;
  double timeout_ = Defaults::timeoutInterval;
  double heartbeatInterval_ = Defaults::heartbeatInterval;
  std::chrono::nanoseconds heartbeatLeeway_ = Defaults::heartbeatLeeway;
  BackOff reconnectAfter_ = &Defaults::reconnectSteppedBackOff;
  BackOff rejoinAfter_ = &Defaults::rejoinSteppedBackOff;
  std::shared_ptr<const Logger> logger_;
  bool skipHeartbeat_ = false;
  bool dropsMalformedInput_ = false;
  bool disableSSLCertValidation_ = false;
  std::optional<std::string> authToken_;
  std::optional<std::vector<std::uint16_t>> enabledSSLCipherSuites_;
  StateChangeCallbacks stateChangeCallbacks_;
  std::vector<std::shared_ptr<Channel>> channels_;
  // The same channels by topic, each topic's in order of creation: a
  // received frame is routed by looking up its topic. Most topics have one
  // channel, held inline; a topic with several keeps an immutable list that
  // routing holds while it runs, as handling may add or remove channels.
  struct TopicChannels {
    std::shared_ptr<Channel> only;
    std::shared_ptr<const std::vector<std::shared_ptr<Channel>>> several;
    [[nodiscard]] std::vector<std::shared_ptr<Channel>> all() const {
      if (several) {
        return *several;
      }
      return only ? std::vector<std::shared_ptr<Channel>>{only} : std::vector<std::shared_ptr<Channel>>{};
    }
  };
  std::unordered_map<std::string, TopicChannels> channelsByTopic_;
  std::vector<BufferedFrame> sendBuffer_;
  std::uint64_t ref_ = 0;
  std::unique_ptr<HeartbeatTimer> heartbeatTimer_;
  std::optional<std::string> pendingHeartbeatRef_;
  std::chrono::steady_clock::time_point heartbeatSentAt_;
  std::shared_ptr<const std::function<void(std::chrono::nanoseconds)>> heartbeatRoundTrip_;
  const std::unique_ptr<detail::MetricCounters> counters_;
  std::shared_ptr<TimeoutTimer> reconnectTimer_;
  // A reconnect that came due while the desktop reported no connectivity.
  bool reconnectPaused_ = false;
  double linkCheckTimeout_ = 1.0;
  std::shared_ptr<platform::DispatchWorkItem> linkCheck_;
  CloseStatus closeStatus_ = CloseStatus::unknown;
  std::shared_ptr<PhoenixTransport> connection_;
  std::atomic<std::uint64_t> sendBufferBytes_{0};
  // connection_ for threads other than the loop's, which only read it.
  mutable std::mutex publishedMutex_;
  std::shared_ptr<PhoenixTransport> publishedConnection_;
  const std::string vsn_;
};

template <class Owner, std::invocable<Owner&> F>
std::string Socket::delegateOnOpen(const std::shared_ptr<Owner>& owner,
                                   F callback) {
  Delegated<void, void> delegated;
  delegated.delegate(owner, std::move(callback));
  return append(&StateChangeCallbacks::open, std::move(delegated));
}

template <class Owner, std::invocable<Owner&> F>
std::string Socket::delegateOnClose(const std::shared_ptr<Owner>& owner,
                                    F callback) {
  Delegated<void, void> delegated;
  delegated.delegate(owner, std::move(callback));
  return append(&StateChangeCallbacks::close, std::move(delegated));
}

template <class Owner, std::invocable<Owner&, const TransportError&, const std::optional<HttpResponse>&> F>
std::string Socket::delegateOnError(
    const std::shared_ptr<Owner>& owner,
    F callback) {
  // Spreads the pair into the callback's two arguments; a named type, so
  // that a captureless callback takes no room in the stored closure.
  struct Spread {
    [[no_unique_address]] F callback;
    void operator()(Owner& self, const ErrorArguments& arguments) {
      std::invoke(callback, self, arguments.first, arguments.second);
    }
  };
  Delegated<ErrorArguments, void> delegated;
  delegated.delegate(owner, Spread{std::move(callback)});
  return append(&StateChangeCallbacks::error, std::move(delegated));
}

template <class Owner, std::invocable<Owner&, const Message&> F>
std::string Socket::delegateOnMessage(const std::shared_ptr<Owner>& owner,
                                      F callback) {
  Delegated<Message, void> delegated;
  delegated.delegate(owner, std::move(callback));
  return append(&StateChangeCallbacks::message, std::move(delegated));
}

template <class... Items>
void Socket::logItems(const Items&... items) const {
  onLoop([&] {
    if (!logger_) {
      return;
    }
    std::string line;
    bool first = true;
    ((line += first ? "" : ", ", line += detail::logText(items), first = false), ...);
    log(line);
  });
}

}  // namespace vantor::realtime
