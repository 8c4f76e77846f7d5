#pragma once

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

namespace vantor::testing {

/// A scriptable WebSocket server on the loopback interface, for tests: ws, or
/// wss with `Options::tls`. It upgrades every request (unless told to refuse),
/// records what clients send, echoes text frames by default, and lets a test
/// push frames, close or drop connections at will.
///
/// It runs its own `io_context` on a thread of its own, where every network
/// operation and every hook runs. Connections are numbered 0, 1, 2 ... in the
/// order their upgrade was accepted; a connection is counted and open from
/// that moment, before the client learns of it, so whatever a test does after
/// its client saw the connection open reaches that connection.
///
/// A misbehaving client only ends its own connection. A handshake or close
/// handshake that stalls is given up after ten seconds (not one that
/// `stallHandshakes` stalls on purpose).
///
/// Every public member may be called from any thread, also from a hook.
/// Calls from other threads run on the server thread and wait for it, so their
/// effect on the server side has happened when they return. While more than a
/// few hundred frames wait to be written, such calls first wait (at most two
/// seconds), so that a flooding test thread cannot bury replies and heartbeat
/// answers. `stop()` and the destructor must not race with other calls.
class WebSocketTestServer {
 public:
  using ConnectionId = std::size_t;

  /// A plain HTTP request (not an upgrade), for `Hooks::onHttp`.
  struct HttpRequest {
    std::string method;
    std::string target;
    std::string contentType;
    std::map<std::string, std::string> headers;  ///< by lower-case name
    std::string body;
  };
  /// Answers an HTTP request, once, on the server thread; the connection then
  /// closes.
  using HttpRespond = std::function<void(int status, const std::string& contentType, std::string body)>;

  /// Callbacks for the protocol server built on this one; each runs on the
  /// server thread, none after the destructor started.
  struct Hooks {
    /// Gets each request that is not a WebSocket upgrade, and answers it now
    /// or later through the responder; without it such requests get 400.
    std::function<void(const HttpRequest&, HttpRespond)> onHttp;
    /// Asked for each upgrade request's target: an HTTP status refuses it.
    /// Not asked while `refuseHandshake` is in force.
    std::function<std::optional<int>(const std::string& target)> screenHandshake;
    /// Gets the offered "Sec-WebSocket-Protocol" ("" when absent) just before
    /// `onOpen`; the answer is named in the 101 response.
    std::function<std::optional<std::string>(const std::string& offered)> chooseSubprotocol;
    /// The upgrade was accepted and counted; frames sent now follow the 101.
    std::function<void(ConnectionId, const std::string& target)> onOpen;
    std::function<void(ConnectionId, const std::string& text)> onText;
    /// A connection that `onOpen` announced ended, before it leaves
    /// `openConnections()`.
    std::function<void(ConnectionId)> onClosed;
  };

  // Every field has an initializer so that designated initializers that
  // name only some of them compile without -Wmissing-field-initializers.
  struct Options {
    std::optional<TestCertificates> tls = std::nullopt;  ///< serve wss when set
    std::uint16_t port = 0;                              ///< 0: a free port
    /// Another loopback address (such as 127.0.0.2) is absent from the test
    /// certificate.
    std::string address = "127.0.0.1";
    bool echo = true;
    /// A connection from which no frame arrives for this long gets
    /// `closeAndDrop(1002)`.
    std::optional<std::chrono::milliseconds> idleTimeout = std::nullopt;
    bool permessageDeflate = false;
    /// A plain request (the `onHttp` hook) that asks to keep its connection
    /// has it kept this long for the next one; zero closes after each answer.
    std::chrono::milliseconds httpKeepAlive = std::chrono::milliseconds(0);
    /// Keep handshake targets and close frames; long runs turn it off.
    bool recordConnections = true;
    Hooks hooks = {};
  };

  struct CloseFrame {
    ConnectionId connection;
    std::uint16_t code;
    std::string reason;
  };

  /// Throws `std::system_error` when the port cannot be opened or OpenSSL
  /// rejects the certificate or key.
  WebSocketTestServer();
  explicit WebSocketTestServer(Options options);
  ~WebSocketTestServer();

  WebSocketTestServer(const WebSocketTestServer&) = delete;
  WebSocketTestServer& operator=(const WebSocketTestServer&) = delete;

  /// Closes the listener and every connection abruptly and joins the thread;
  /// the port is free again (a new server may take it to play a restart). No
  /// hook or `runAfter` work runs afterwards, and later calls that act on
  /// connections do nothing; the records stay readable. Not from a hook.
  void stop();

  [[nodiscard]] std::uint16_t port() const;
  /// "ws://<address>:<port><pathAndQuery>", or with TLS "wss://localhost:..."
  /// (the certificate's name) for 127.0.0.1. A missing leading "/" is added.
  [[nodiscard]] std::string url(std::string_view pathAndQuery = "/") const;

  void setEcho(bool echo);
  /// Later upgrade requests get this HTTP status and are closed; `nullopt`
  /// accepts again. They still appear in `handshakeTargets()`.
  void refuseHandshake(std::optional<int> httpStatus);
  /// Later upgrade requests get no answer at all and the client's handshake
  /// hangs; they appear in `handshakeTargets()` but are never counted. Takes
  /// precedence over `refuseHandshake`.
  void stallHandshakes(bool stall);
  /// Later upgrades are accepted (counted, hooks run) and closed at once: with
  /// a close frame carrying `code`, or by dropping TCP right after the 101.
  void closeAfterUpgrade(std::optional<std::uint16_t> code);
  /// Undoes `refuseHandshake`, `stallHandshakes` and `closeAfterUpgrade`.
  void acceptHandshakes();

  /// Waits until `count` upgrades have been accepted since the start.
  bool waitForConnections(std::size_t count, std::chrono::milliseconds timeout) const;
  /// Waits until exactly `count` connections are open.
  bool waitForOpenConnections(std::size_t count, std::chrono::milliseconds timeout) const;
  [[nodiscard]] std::size_t openConnections() const;
  [[nodiscard]] std::size_t connectionCount() const;

  /// To every open connection.
  void sendText(std::string text);
  void sendBinary(std::string bytes);
  /// Starts the close handshake after the frames queued before; later sends
  /// are dropped.
  void closeWith(std::uint16_t code, std::string reason = {});
  /// Shuts down and closes TCP without a close frame.
  void dropConnections();
  /// A close frame after the frames queued before, then TCP shut down and
  /// closed at once, without waiting for the answer.
  void closeAndDrop(std::uint16_t code);
  /// Stops listening (the port is free again), `closeAndDrop(code)` on every
  /// open connection and drops those still in their handshake. Hooks keep
  /// running.
  void shutDown(std::uint16_t code);

  /// To one connection; an unknown or ended one is ignored.
  void sendTextTo(ConnectionId connection, std::string text);
  void dropConnection(ConnectionId connection);
  void closeConnectionWith(ConnectionId connection, std::uint16_t code, std::string reason = {});

  /// Close frames that clients sent to start a close handshake (not answers
  /// to the server's own close), in order of arrival.
  [[nodiscard]] std::vector<CloseFrame> receivedCloseFrames() const;
  /// Targets of every upgrade request seen, accepted or not.
  [[nodiscard]] std::vector<std::string> handshakeTargets() const;

  /// Runs `work` on the server thread and waits for it (inline on that
  /// thread); its exceptions reach the caller. Not run after `stop()`.
  void execute(const std::function<void()>& work) const;
  /// Runs `work` on the server thread after `delay`, unless the server is
  /// destroyed first.
  void runAfter(std::chrono::milliseconds delay, std::function<void()> work);

 private:
  class Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace vantor::testing
