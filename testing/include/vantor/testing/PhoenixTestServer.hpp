#pragma once

#include <boost/json/object.hpp>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "vantor/testing/TestCertificates.hpp"
#include "vantor/testing/WebSocketTestServer.hpp"

namespace vantor::testing {

/// A loopback server that plays the server side of the Phoenix Channels
/// protocol (JSON serializer "2.0.0": every frame is the array
/// [join_ref, ref, topic, event, payload], null for an absent reference),
/// with channels and presence, for tests and demos.
///
/// Endpoint: clients connect to `url()` ("/socket") with "/websocket" appended and the
/// query `vsn=2.0.0&<params>`. Another path is refused with HTTP 404, a
/// missing or other `vsn` with HTTP 400. The query parameters of each
/// accepted connection are kept (`connectParams()`).
///
/// What the server answers:
/// - "heartbeat" on topic "phoenix": [null, ref, "phoenix", "phx_reply",
///   {"status":"ok","response":{}}], unless `setHeartbeatReplies(false)`.
/// - "phx_join": the ok reply [join_ref, ref, topic, "phx_reply",
///   {"status":"ok","response":{}}]; for a topic marked with `forbidTopic`
///   an "error" reply with {"reason": reason}. Joining a topic that the
///   connection has already joined replaces the older channel: the new
///   join's reply comes first, then [old_join_ref, old_join_ref, topic,
///   "phx_close", {}] for the older one.
/// - "phx_leave": the ok reply, then [join_ref, join_ref, topic, "phx_close",
///   {}]. A leave for a topic that the connection has not joined gets an ok
///   reply only (the client may have raced a server-side close); a leave
///   that carries an older join ref than the current channel's is ignored.
/// - Any other event on a topic that the connection has not joined:
///   [null, ref, topic, "phx_reply", {"status":"error",
///   "response":{"reason":"unmatched topic"}}].
/// - Events on a joined channel, replies carry the channel's join ref:
///   - "echo": ok reply whose response is the payload;
///   - "fail": "error" reply whose response is the payload;
///   - "delayed": ok reply with the payload after payload["delay_ms"]
///     milliseconds (0 when absent), if the channel still exists by then;
///   - "noreply": no reply at all;
///   - "broadcast": [null, null, topic, "broadcast", payload] to every member
///     of the topic on every connection, the sender included; no reply;
///   - "push_back": [join_ref, null, topic, "pushed", payload] to the sender
///     only; no reply;
///   - any other event: ok reply with an empty response.
///
/// Presence (unless `Options::presence` is false): a member whose join
/// payload has "user_id" (a string, or an integer taken as its decimal text)
/// is tracked under that key; one meta per join, {"phx_ref": unique string}
/// plus the fields of the join payload's "presence_meta" object, if any. A
/// user on two connections has two metas. Right after every successful join
/// reply the joining member gets [join_ref, null, topic, "presence_state",
/// state], and when a tracked member comes or goes (join, leave, channel
/// crash or close, dropped connection) every current member of the topic
/// gets [null, null, topic, "presence_diff", {"joins":{...},"leaves":{...}}].
/// The joining member receives its own join diff too, before its
/// "presence_state" (as real servers may deliver them); with
/// `presenceDiffBeforeState = false` after it.
///
/// Broadcasts and presence diffs carry a null join ref; pushes to one member
/// ("pushed", `push`, "presence_state") carry its join ref; "phx_error" and
/// "phx_close" are [join_ref, join_ref, topic, event, {}].
///
/// Closing codes, as real servers send them:
/// - 1002 when a connection sent no frame at all for `Options::idleTimeout`
///   (60 s by default): a close frame, then the TCP connection is dropped
///   without waiting for the answer;
/// - 1011 after a text frame that is not JSON or not a 5-element array of
///   the right element types: a close handshake;
/// - 1012 from `shutDown()`.
/// A binary frame is ignored; the connection stays up.
///
/// Connections are numbered 0, 1, 2 ... in the order in which they opened,
/// the same numbers as `Frame::connection`, the index in `connectParams()`
/// and the ids of the raw `webSocket()` layer.
///
/// Threads: the server runs on the thread of its `WebSocketTestServer`. The
/// `trace` callback runs on that thread.
///
/// Thread safety: every public member may be called from any thread; calls
/// are carried onto the server thread and return once the server has acted
/// (frames queued, sockets closed), not once the client has seen it. The
/// destructor must not race with other calls. Making and destroying many
/// servers in one process is fine. Calls wait briefly while clients are far
/// behind in reading (see `WebSocketTestServer`), so a flood from a test
/// thread does not starve replies and heartbeats.
class PhoenixTestServer {
 public:
  using ConnectionId = WebSocketTestServer::ConnectionId;

  // Every field has an initializer so that designated initializers that
  // name only some of them compile without -Wmissing-field-initializers.
  struct Options {
    std::optional<TestCertificates> tls = std::nullopt;  ///< serve wss when set
    std::uint16_t port = 0;                              ///< 0: a free port
    bool presence = true;                  ///< send presence_state and presence_diff
    /// Send a joining member's own "presence_diff" before its "presence_state".
    bool presenceDiffBeforeState = true;
    /// A connection that sends no frame for this long is closed with 1002.
    std::chrono::milliseconds idleTimeout = std::chrono::seconds(60);
    /// Take up permessage-deflate compression when a client offers it.
    bool compress = false;
    /// Keep each connection's parameters, auth token, handshake target and
    /// close frames (`connectParams()`, `authTokens()`, ...). Long runs turn
    /// it off so that the server's memory stays flat; frames are still
    /// recorded until taken.
    bool recordConnections = true;
    /// Picks the subprotocol named in the 101 response from those a client
    /// offered. By default "phoenix" when offered, none otherwise; tests
    /// replace it to answer wrongly.
    std::function<std::optional<std::string>(const std::vector<std::string>& offered)>
        subprotocolAnswer = nullptr;
    /// Called on the server thread with one line per frame received ("<- ")
    /// or sent ("-> "), prefixed by the connection number. For demos.
    std::function<void(const std::string&)> trace = nullptr;
  };

  /// A well-formed frame received from a client.
  struct Frame {
    ConnectionId connection;
    std::optional<std::string> joinRef;
    std::optional<std::string> ref;
    std::string topic;
    std::string event;
    boost::json::object payload;
  };

  /// Starts listening on 127.0.0.1 (see `WebSocketTestServer`).
  PhoenixTestServer();
  explicit PhoenixTestServer(Options options);
  /// Stops the server and ends every connection abruptly.
  ~PhoenixTestServer();

  PhoenixTestServer(const PhoenixTestServer&) = delete;
  PhoenixTestServer& operator=(const PhoenixTestServer&) = delete;

  // --- Where to connect -----------------------------------------------------

  [[nodiscard]] std::uint16_t port() const;
  /// The endpoint to give the client, e.g. "ws://127.0.0.1:<port>/socket" or
  /// "wss://localhost:<port>/socket"; the client appends "/websocket".
  [[nodiscard]] std::string url() const;

  // --- Connections ----------------------------------------------------------

  /// Waits until `count` connections have opened since the start.
  bool waitForConnections(std::size_t count, std::chrono::milliseconds timeout) const;
  /// Waits until exactly `count` connections are open.
  bool waitForOpenConnections(std::size_t count, std::chrono::milliseconds timeout) const;
  [[nodiscard]] std::size_t openConnections() const;
  /// The query parameters of each accepted connection, "vsn" included, in
  /// order of connection. A repeated name keeps its last value.
  [[nodiscard]] std::vector<std::map<std::string, std::string>> connectParams() const;
  /// The auth token of each accepted connection, in order of connection:
  /// the offered subprotocol "base64url.bearer.phx.<token>" decoded from
  /// base64 without padding, or nothing when none was offered (or it did
  /// not decode).
  [[nodiscard]] std::vector<std::optional<std::string>> authTokens() const;

  // --- What clients sent ----------------------------------------------------

  /// The frames on `topic` with `event`; an empty `event` matches any event.
  [[nodiscard]] std::vector<Frame> receivedFrames(std::string_view topic,
                                                  std::string_view event = {}) const;
  [[nodiscard]] std::size_t countReceived(std::string_view topic,
                                          std::string_view event = {}) const;
  /// Waits until at least `count` frames matching `topic` and `event` (as
  /// above) have been received.
  bool waitForFrames(std::string_view topic, std::string_view event, std::size_t count,
                     std::chrono::milliseconds timeout) const;
  /// Returns every frame recorded so far, on any topic, and forgets them:
  /// the counts and waits above see only later frames. Keeps memory flat
  /// in long runs.
  [[nodiscard]] std::vector<Frame> takeReceivedFrames();
  /// Heartbeats received ("heartbeat" on "phoenix"), answered or not.
  [[nodiscard]] std::size_t heartbeatsReceived() const;

  // --- Channels -------------------------------------------------------------

  /// Later joins of `topic` get an "error" reply with {"reason": reason}.
  void forbidTopic(const std::string& topic, const std::string& reason = "unauthorized");
  /// Undoes `forbidTopic`.
  void allowTopic(const std::string& topic);
  /// Channels joined on `topic`, over all connections.
  [[nodiscard]] std::size_t memberCount(const std::string& topic) const;
  /// Waits until exactly `count` channels are joined on `topic`.
  bool waitForMembers(const std::string& topic, std::size_t count,
                      std::chrono::milliseconds timeout) const;
  /// Ends the channel on `topic` as a crash: [join_ref, join_ref, topic,
  /// "phx_error", {}] to the member on `connection`, or to every member when
  /// none is given. The members are gone afterwards (presence leaves follow).
  void crashChannel(const std::string& topic,
                    std::optional<ConnectionId> connection = std::nullopt);
  /// The same with "phx_close": the server ended the channel.
  void closeChannel(const std::string& topic,
                    std::optional<ConnectionId> connection = std::nullopt);
  /// [null, null, topic, event, payload] to every member of `topic`.
  void broadcast(const std::string& topic, const std::string& event, boost::json::object payload);
  /// [join_ref, null, topic, event, payload] to the member on `connection`,
  /// or to every member of `topic`.
  void push(const std::string& topic, const std::string& event, boost::json::object payload,
            std::optional<ConnectionId> connection = std::nullopt);

  // --- Heartbeats and presence ----------------------------------------------

  /// Stop (false) or resume (true) answering heartbeats. Default true.
  void setHeartbeatReplies(bool answer);

  // --- Faults on the connection ---------------------------------------------

  /// Answers later upgrade requests with this HTTP status; `nullopt` undoes it.
  void refuseHandshake(std::optional<int> httpStatus);
  /// Handshake faults of the WebSocket layer (see `WebSocketTestServer`):
  /// upgrade requests left unanswered, upgrades closed at once with a code
  /// (or dropped when `nullopt`), and back to normal.
  void stallHandshakes(bool stall);
  void closeAfterUpgrade(std::optional<std::uint16_t> code);
  void acceptHandshakes();
  /// A close frame with `code`, then the TCP connection dropped at once
  /// without waiting for the answer (what the idle time-out does), on one or
  /// all connections.
  void closeAndDrop(std::uint16_t code, std::optional<ConnectionId> connection = std::nullopt);
  /// Server shutdown: stops listening (new connections are refused, the port
  /// is free again), sends close 1012 to every connection and drops it
  /// without waiting for the answer. The object stays usable for reading
  /// records; a new server may take the port to play a restart.
  void shutDown();
  /// Shuts down and closes the TCP connections, without a close frame.
  void dropConnections();
  void dropConnection(ConnectionId connection);
  /// Runs the close handshake with `code`.
  void closeWith(std::uint16_t code, std::string reason = {});
  /// Sends `text` as it is, e.g. "not json" or "[1,2,3,4,5]", to one or all
  /// connections.
  void sendRaw(std::string text, std::optional<ConnectionId> connection = std::nullopt);
  /// Sends a binary frame to one or all connections.
  void sendBinary(std::string bytes, std::optional<ConnectionId> connection = std::nullopt);

  /// The WebSocket layer underneath, for anything not covered above (close
  /// frames received, handshake targets). Turning its echo on
  /// would confuse clients.
  [[nodiscard]] WebSocketTestServer& webSocket();

 private:
  class Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace vantor::testing
