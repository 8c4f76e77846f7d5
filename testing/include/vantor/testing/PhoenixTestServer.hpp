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
/// protocol (serializer "2.0.0": every frame is [join_ref, ref, topic, event,
/// payload], null for an absent reference), with channels and presence.
///
/// Clients connect to `url()` + "/websocket?vsn=2.0.0&<params>"; another path
/// gets HTTP 404, another or no `vsn` HTTP 400.
///
/// It serves long-poll at `url()` + "/longpoll" as Phoenix 1.8 does: every
/// answer is HTTP 200 with the status in the JSON body. A GET without a
/// token opens a session ({"status":410,"token":T,"messages":[]}; the
/// "x-phoenix-authtoken" header is its auth token); a GET with `token=T`
/// returns the frames waiting ({"status":200,...}), or holds the poll until
/// one comes or `Options::longPollTime` passes ({"status":204,...}); a POST
/// with `token=T` (or the header "x-phoenix-longpoll-token") carries one
/// frame, or several as "application/x-ndjson", and gets {"status":200}. An
/// unknown token gets {"status":410}. A session counts as a connection; one
/// that stops polling ends after `Options::longPollSessionIdle`, and
/// `shutDown()` and `dropConnections()` end every session.
///
/// Answers:
/// - "heartbeat" on "phoenix": an ok reply, unless `setHeartbeatReplies(false)`.
/// - "phx_join": an ok reply, or for a `forbidTopic` topic an "error" reply
///   {"reason": reason}. Joining a joined topic replaces the older channel:
///   the new reply first, then "phx_close" for the older join ref.
/// - "phx_leave": an ok reply, then "phx_close". A leave of a topic not joined
///   gets an ok reply only (it may have raced a server-side close); one with
///   an older join ref than the current channel's is ignored.
/// - Another event on a topic not joined: an "error" reply
///   {"reason":"unmatched topic"} with a null join ref.
/// - On a joined channel: "echo" replies ok with the payload, "fail" replies
///   "error" with it, "delayed" replies ok after payload["delay_ms"] if the
///   channel still exists, "noreply" gets nothing, "broadcast" goes to every
///   member (sender included) without a reply, "push_back" comes back as
///   "pushed" to the sender only; anything else gets an empty ok reply.
///
/// Presence (unless `Options::presence` is false): a join whose payload has
/// "user_id" (string or integer) is tracked under it with one meta per join,
/// {"phx_ref": unique} plus the join's "presence_meta" fields. Each member
/// that comes or goes (join, leave, crash, close, dropped connection) makes a
/// "presence_diff" to every member of the topic. After each ok join reply the
/// member gets "presence_state", preceded by its own diff when tracked.
///
/// Broadcasts and presence diffs carry a null join ref, pushes to one member
/// its join ref; "phx_error" and "phx_close" are [join_ref, join_ref, topic,
/// event, {}].
///
/// Closes as real servers do: 1002 (a close frame, then TCP dropped) after
/// `Options::idleTimeout` without any frame; 1011 after a text frame that is
/// not a well-formed frame; 1012 from `shutDown()`. Binary frames are ignored.
///
/// Connections are numbered as in `WebSocketTestServer`, whose thread runs
/// this server and the `trace` callback. Every public member may be called
/// from any thread and returns once the server has acted.
class PhoenixTestServer {
 public:
  using ConnectionId = WebSocketTestServer::ConnectionId;

  // Every field has an initializer so that designated initializers that
  // name only some of them compile without -Wmissing-field-initializers.
  struct Options {
    std::optional<TestCertificates> tls = std::nullopt;  ///< serve wss when set
    std::uint16_t port = 0;                              ///< 0: a free port
    bool presence = true;
    std::chrono::milliseconds idleTimeout = std::chrono::seconds(60);
    bool compress = false;  ///< permessage-deflate when a client offers it
    /// Keep each connection's parameters, auth token, handshake target and
    /// close frames; long runs turn it off (frames are kept until taken).
    bool recordConnections = true;
    /// Picks the subprotocol of the 101 response from those offered; by
    /// default "phoenix" when offered, none otherwise.
    std::function<std::optional<std::string>(const std::vector<std::string>& offered)>
        subprotocolAnswer = nullptr;
    /// Long-poll (see the class comment): how long a poll is held when
    /// nothing comes, and how long a session that stopped polling lingers.
    std::chrono::milliseconds longPollTime = std::chrono::seconds(10);
    std::chrono::milliseconds longPollSessionIdle = std::chrono::seconds(15);
    /// How long a long-poll request's connection stays open for the next
    /// request (5 s, as Cowboy keeps an idle one); zero closes after each.
    std::chrono::milliseconds httpKeepAlive = std::chrono::seconds(5);
    /// One line per frame received ("<- ") or sent ("-> "), for demos.
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

  PhoenixTestServer();
  explicit PhoenixTestServer(Options options);
  ~PhoenixTestServer();

  PhoenixTestServer(const PhoenixTestServer&) = delete;
  PhoenixTestServer& operator=(const PhoenixTestServer&) = delete;

  [[nodiscard]] std::uint16_t port() const;
  /// "ws://127.0.0.1:<port>/socket" or "wss://localhost:<port>/socket".
  [[nodiscard]] std::string url() const;

  /// Waits until `count` connections have opened since the start.
  bool waitForConnections(std::size_t count, std::chrono::milliseconds timeout) const;
  /// Waits until exactly `count` connections are open.
  bool waitForOpenConnections(std::size_t count, std::chrono::milliseconds timeout) const;
  [[nodiscard]] std::size_t openConnections() const;
  /// The query parameters of each accepted connection, "vsn" included.
  [[nodiscard]] std::vector<std::map<std::string, std::string>> connectParams() const;
  /// Each accepted connection's token from the offered subprotocol
  /// "base64url.bearer.phx.<unpadded base64>", if any and it decoded.
  [[nodiscard]] std::vector<std::optional<std::string>> authTokens() const;

  /// The frames on `topic` with `event`; an empty `event` matches any event.
  [[nodiscard]] std::vector<Frame> receivedFrames(std::string_view topic,
                                                  std::string_view event = {}) const;
  [[nodiscard]] std::size_t countReceived(std::string_view topic,
                                          std::string_view event = {}) const;
  /// Waits until at least `count` frames matching `topic` and `event` came.
  bool waitForFrames(std::string_view topic, std::string_view event, std::size_t count,
                     std::chrono::milliseconds timeout) const;
  /// Every frame recorded so far, which the counts and waits then forget.
  [[nodiscard]] std::vector<Frame> takeReceivedFrames();
  [[nodiscard]] std::size_t heartbeatsReceived() const;

  /// Later joins of `topic` get an "error" reply with {"reason": reason}.
  void forbidTopic(const std::string& topic, const std::string& reason = "unauthorized");
  void allowTopic(const std::string& topic);
  /// Channels joined on `topic`, over all connections.
  [[nodiscard]] std::size_t memberCount(const std::string& topic) const;
  bool waitForMembers(const std::string& topic, std::size_t count,
                      std::chrono::milliseconds timeout) const;
  /// Ends every channel on `topic` with "phx_error" (a crash) or "phx_close";
  /// presence leaves follow.
  void crashChannel(const std::string& topic);
  void closeChannel(const std::string& topic);
  /// [null, null, topic, event, payload] to every member of `topic`.
  void broadcast(const std::string& topic, const std::string& event, boost::json::object payload);
  /// [join_ref, null, topic, event, payload] to every member of `topic`.
  void push(const std::string& topic, const std::string& event, boost::json::object payload);
  void setHeartbeatReplies(bool answer);

  /// Faults of the WebSocket layer, as there.
  void refuseHandshake(std::optional<int> httpStatus);
  void stallHandshakes(bool stall);
  void closeAfterUpgrade(std::optional<std::uint16_t> code);
  void acceptHandshakes();
  void closeAndDrop(std::uint16_t code);
  /// The next `count` long-poll polls and sends of existing sessions get
  /// {"status":408}, the server's own request time-out, without effect.
  void timeOutLongPollRequests(std::size_t count);
  /// A server shutdown: `WebSocketTestServer::shutDown(1012)`. A new server
  /// may take the port to play a restart.
  void shutDown();
  void dropConnections();
  void dropConnection(ConnectionId connection);
  void closeWith(std::uint16_t code, std::string reason = {});
  /// `text` as it is, e.g. "not json", to every connection.
  void sendRaw(std::string text);
  void sendBinary(std::string bytes);

  /// The WebSocket layer underneath (close frames, handshake targets).
  [[nodiscard]] WebSocketTestServer& webSocket();

 private:
  class Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace vantor::testing
