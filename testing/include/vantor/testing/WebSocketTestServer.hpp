#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "vantor/testing/TestCertificates.hpp"

namespace vantor::testing {

/// A scriptable WebSocket server on the loopback interface, for tests.
///
/// It listens on 127.0.0.1 (on a free port unless told otherwise), upgrades every HTTP request that
/// asks for it (unless told to refuse), records what clients send and lets a
/// test push frames, close or drop connections at will. By default it echoes
/// each text frame back. With `Options::tls` it serves wss with the given
/// certificate and key.
///
/// The server runs its own `io_context` on a thread of its own; every network
/// operation and every hook runs on that thread. Connections are numbered
/// 0, 1, 2 ... in the order in which their upgrade was accepted
/// (`ConnectionId`). A connection is counted and open from the moment the
/// server accepts its upgrade, before the client learns of it, so whatever a
/// test does after its client saw the connection open reaches that
/// connection.
///
/// Misbehaving clients (vanishing, sending garbage, closing mid-handshake,
/// failing TLS) only end their own connection. A handshake or a close
/// handshake that stalls is given up after ten seconds (not one that
/// `stallHandshakes` stalls on purpose).
///
/// Faults on demand: refused, stalled or at once closed upgrades, a close
/// frame followed by dropping the TCP connection without waiting for the
/// answer (`closeAndDrop`, also what `Options::idleTimeout` does), and a
/// shutdown that closes the listener and every connection (`shutDown`).
///
/// Thread safety: every public member may be called from any thread, also
/// from inside a hook. Calls from other threads are carried onto the server
/// thread and wait for it, so their effect (a frame queued, a socket closed)
/// has happened on the server side when they return; the client sees it
/// later. `stop()` and the destructor must not race with other calls.
///
/// Back-pressure: while more than a few hundred frames wait to be written to
/// clients, calls from other threads wait (at most two seconds) before they
/// act, so a test thread that floods clients cannot bury replies and
/// heartbeat answers under an ever growing queue.
class WebSocketTestServer {
 public:
  using ConnectionId = std::size_t;

  /// Callbacks for code built on top of this server (the protocol server).
  /// Each runs on the server thread; none runs after the destructor started.
  struct Hooks {
    /// Asked for each upgrade request, with its target (path and query).
    /// Returning an HTTP status refuses the upgrade with it; `nullopt`
    /// accepts. Not asked while `refuseHandshake` is in force.
    std::function<std::optional<int>(const std::string& target)> screenHandshake;
    /// Asked for each accepted upgrade request with its
    /// "Sec-WebSocket-Protocol" header ("" when absent), just before
    /// `onOpen`; the answer goes into the 101 response's header of that
    /// name, none when `nullopt`. Without this hook no subprotocol is named.
    std::function<std::optional<std::string>(const std::string& offered)> chooseSubprotocol;
    /// The server accepted a connection's upgrade; the 101 response is on
    /// its way, and frames sent now follow it. Runs after the connection is
    /// counted, so a client never sees frames before the count is visible.
    std::function<void(ConnectionId, const std::string& target)> onOpen;
    /// A text frame arrived (after it was recorded).
    std::function<void(ConnectionId, const std::string& text)> onText;
    /// A binary frame arrived (after it was recorded).
    std::function<void(ConnectionId, const std::string& bytes)> onBinary;
    /// A connection that `onOpen` announced ended, for whatever reason (also
    /// when the client vanished before the upgrade finished). Runs before the
    /// connection leaves `openConnections()`.
    std::function<void(ConnectionId)> onClosed;
  };

  // Every field has an initializer so that designated initializers that
  // name only some of them compile without -Wmissing-field-initializers.
  struct Options {
    std::optional<TestCertificates> tls = std::nullopt;  ///< serve wss when set, plain ws otherwise
    std::uint16_t port = 0;                              ///< 0: a free port
    /// The loopback address to listen on; another one than 127.0.0.1 (such
    /// as 127.0.0.2) is absent from the test certificate.
    std::string address = "127.0.0.1";
    bool echo = true;                                    ///< initial value of `setEcho`
    /// A connection from which no frame (data or control) arrives for this
    /// long gets `closeAndDrop(idleCloseCode)`. None by default.
    std::optional<std::chrono::milliseconds> idleTimeout = std::nullopt;
    std::uint16_t idleCloseCode = 1002;
    /// Take up permessage-deflate compression when a client offers it.
    bool permessageDeflate = false;
    /// Keep each connection's handshake target and the close frames it
    /// sent. Long runs turn it off so that the server's memory stays flat.
    bool recordConnections = true;
    Hooks hooks = {};
  };

  /// A close frame that a client sent.
  struct CloseFrame {
    ConnectionId connection;
    std::uint16_t code;
    std::string reason;
  };

  /// Listens on `Options::address` and starts the server thread.
  /// Throws `std::system_error` when the port cannot be opened or OpenSSL
  /// rejects the TLS certificate or key.
  WebSocketTestServer();
  explicit WebSocketTestServer(Options options);
  /// Calls `stop()`.
  ~WebSocketTestServer();

  WebSocketTestServer(const WebSocketTestServer&) = delete;
  WebSocketTestServer& operator=(const WebSocketTestServer&) = delete;

  /// Closes the listener and every connection abruptly and joins the server
  /// thread; the port is free again afterwards (a new server may take it
  /// with `Options::port`, to play a restarted server). Once it returns no
  /// hook and no `runAfter` work runs; hooks are not called for the
  /// connections it ends. Calls that act on connections do nothing
  /// afterwards; the records stay readable. Must not be called from a hook.
  /// Calling it again does nothing.
  void stop();

  [[nodiscard]] std::uint16_t port() const;
  /// "ws://<address>:<port><pathAndQuery>" or, with TLS,
  /// "wss://localhost:<port><pathAndQuery>" (the name the certificate holds;
  /// the address itself when it is not 127.0.0.1).
  /// A `pathAndQuery` without a leading "/" gets one.
  [[nodiscard]] std::string url(std::string_view pathAndQuery = "/") const;

  /// Echo each received text frame back to its sender (default true).
  void setEcho(bool echo);
  /// Answers every later upgrade request with this HTTP status and a short
  /// text body, then closes the connection; `nullopt` accepts again. The
  /// refused requests still appear in `handshakeTargets()`.
  void refuseHandshake(std::optional<int> httpStatus);
  /// While true, later upgrade requests get no answer at all: the TCP
  /// connection stays open (until the client leaves or the server stops) and
  /// the client's handshake hangs. The requests appear in
  /// `handshakeTargets()`; the connections are never counted. Takes
  /// precedence over `refuseHandshake`.
  void stallHandshakes(bool stall);
  /// Later upgrades are accepted (counted, hooks run) and then at once closed:
  /// with a close frame carrying `code` (a normal close handshake), or, when
  /// `code` is `nullopt`, by dropping the TCP connection right after the 101.
  /// `acceptHandshakes()` ends this mode.
  void closeAfterUpgrade(std::optional<std::uint16_t> code);
  /// Undoes `refuseHandshake`, `stallHandshakes` and `closeAfterUpgrade`.
  void acceptHandshakes();

  /// Waits until the upgrades of `count` connections have been accepted since
  /// the start (cumulative). False when the timeout passes first.
  bool waitForConnections(std::size_t count, std::chrono::milliseconds timeout) const;
  /// Waits until exactly `count` connections are open. False on timeout.
  bool waitForOpenConnections(std::size_t count, std::chrono::milliseconds timeout) const;
  [[nodiscard]] std::size_t openConnections() const;
  /// Connections accepted since the start, open or not.
  [[nodiscard]] std::size_t connectionCount() const;

  /// Queues a text frame to every open connection.
  void sendText(std::string text);
  /// Queues a binary frame to every open connection.
  void sendBinary(std::string bytes);
  /// Starts the close handshake with `code` on every open connection, after
  /// the frames queued before. Later sends to those connections are dropped.
  void closeWith(std::uint16_t code, std::string reason = {});
  /// Ends every open connection at once: the TCP socket is shut down and
  /// closed without a close frame.
  void dropConnections();
  /// Sends a close frame with `code` after the frames queued before, then
  /// shuts down and closes the TCP connection at once, without waiting for
  /// the client's answer.
  void closeAndDrop(std::uint16_t code);
  /// Stops listening (new connections are refused; the port is free again
  /// afterwards), `closeAndDrop(code)` on every open connection and drops
  /// connections still in their handshake. Hooks keep running; `stop()` is
  /// still needed to end the thread.
  void shutDown(std::uint16_t code);

  /// The same, for one connection. An unknown or ended connection is ignored.
  void sendTextTo(ConnectionId connection, std::string text);
  void sendBinaryTo(ConnectionId connection, std::string bytes);
  void dropConnection(ConnectionId connection);
  void closeConnectionWith(ConnectionId connection, std::uint16_t code, std::string reason = {});
  void closeAndDropConnection(ConnectionId connection, std::uint16_t code);

  /// Close frames that clients sent to start a close handshake, in order of
  /// arrival. Answers to the server's own close are not included.
  [[nodiscard]] std::vector<CloseFrame> receivedCloseFrames() const;
  /// Request targets (path and query) of every upgrade request seen,
  /// accepted or refused, in order of arrival.
  [[nodiscard]] std::vector<std::string> handshakeTargets() const;

  /// Runs `work` on the server thread and waits for it: inline when called
  /// on that thread. Exceptions thrown by `work` reach the caller. After
  /// `stop()` the work is not run.
  void execute(const std::function<void()>& work) const;
  /// Runs `work` on the server thread once `delay` has passed, unless the
  /// server is destroyed first.
  void runAfter(std::chrono::milliseconds delay, std::function<void()> work);

 private:
  class Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace vantor::testing
