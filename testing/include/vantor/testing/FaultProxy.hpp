#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

namespace vantor::testing {

/// A TCP proxy on the loopback interface that puts network faults between a
/// client and a server, for tests.
///
/// It listens on 127.0.0.1 (a free port) and forwards the bytes of every
/// accepted connection to `Options::targetHost`:`targetPort` and back; it
/// never looks into them, so TLS passes through untouched. On command it:
/// - freezes: every connection stays open and nothing is forwarded in either
///   direction, as with a hung server or a dead network (no FIN, no RST).
///   What arrives meanwhile is held (reading goes on up to a bound, then
///   stops) and forwarded in order after `unfreeze()`, end-of-stream
///   included. New connections are accepted at TCP level but forward nothing
///   until then;
/// - resets every current connection with a TCP RST on both sides;
/// - cuts the next chunk that the server sends: only its first half (at
///   least one byte, fewer than all) reaches the client, then both sides are
///   closed;
/// - trickles: forwards at most N bytes per interval in both directions;
/// - delays every forwarded chunk by a fixed latency, in both directions,
///   order kept.
///
/// A half-close (end-of-stream) is passed on after the data before it; a
/// connection ends once both directions ended, or at once when either peer
/// resets it or a write fails (the other peer then gets an RST too).
///
/// Threads: the proxy runs its own `io_context` on a thread of its own.
/// Every public member may be called from any thread; calls are carried onto
/// that thread and return once the proxy has acted (not once the peers have
/// noticed). `stop()` and the destructor must not race with other calls.
class FaultProxy {
 public:
  struct Options {
    std::uint16_t targetPort = 0;
    std::string targetHost = "127.0.0.1";
    /// The target serves TLS: `url()` gives a wss URL.
    bool tls = false;
  };

  /// Listens on 127.0.0.1 and starts the proxy thread. Throws
  /// `std::system_error` when it cannot listen.
  explicit FaultProxy(Options options);
  /// Calls `stop()`.
  ~FaultProxy();

  FaultProxy(const FaultProxy&) = delete;
  FaultProxy& operator=(const FaultProxy&) = delete;

  /// Closes the listener and every connection (abruptly) and joins the
  /// thread. Calling it again does nothing; later calls that act do nothing.
  void stop();

  [[nodiscard]] std::uint16_t port() const;
  /// "ws://127.0.0.1:<port><pathAndQuery>", or with `Options::tls`
  /// "wss://localhost:<port><pathAndQuery>" (the name the test certificate
  /// holds). A `pathAndQuery` without a leading "/" gets one.
  [[nodiscard]] std::string url(std::string_view pathAndQuery = "/") const;

  void freeze();
  void unfreeze();
  /// Ends every current connection with an RST to both peers.
  void reset();
  /// The next chunk read from a server after this call is forwarded only in
  /// part, then both sides are closed. A one-byte chunk cannot be cut; it is
  /// forwarded and the cut waits for the next one.
  void cutNextServerChunk();
  /// At most `bytes` per `interval`, in both directions; 0 bytes or a zero
  /// interval forwards at full speed again.
  void trickle(std::size_t bytes, std::chrono::milliseconds interval);
  /// Latency added to every chunk read from now on; zero for none.
  void delay(std::chrono::milliseconds latency);

  /// Bytes read from clients (towards the server) and from servers
  /// (towards clients) since the start: what went over the wire, TLS and
  /// WebSocket framing included.
  struct ByteCounts {
    std::uint64_t towardsServer = 0;
    std::uint64_t towardsClient = 0;
  };
  [[nodiscard]] ByteCounts bytesForwarded() const;

  /// Connections accepted since the start.
  [[nodiscard]] std::size_t connectionCount() const;
  /// Connections accepted and not yet ended.
  [[nodiscard]] std::size_t openConnections() const;
  /// Waits until `count` connections have been accepted since the start.
  /// False when the timeout passes first.
  bool waitForConnections(std::size_t count, std::chrono::milliseconds timeout) const;

 private:
  class Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace vantor::testing
