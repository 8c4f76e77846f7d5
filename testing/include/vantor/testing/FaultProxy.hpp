#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

namespace vantor::testing {

/// A TCP proxy on 127.0.0.1 (a free port) that puts network faults between
/// a client and a server on 127.0.0.1:`targetPort`. It never looks into the
/// bytes, so TLS passes through. On command it:
/// - freezes: connections stay open and nothing is forwarded either way, as
///   with a hung server or a dead network (no FIN, no RST). What arrives is
///   held (up to a bound, then reading stops) and forwarded in order after
///   `unfreeze()`, end-of-stream included. New connections are accepted at
///   TCP level but forward nothing until then;
/// - resets every current connection with an RST on both sides;
/// - cuts the next chunk from the server: only its first half (at least one
///   byte, fewer than all) reaches the client, then both sides are closed;
/// - trickles at most N bytes per interval, and delays every chunk by a fixed
///   latency, both ways, order kept.
///
/// A half-close is passed on after the data before it; a connection ends once
/// both directions ended, or at once when either peer resets it or a write
/// fails (the other peer then gets an RST too).
///
/// The proxy runs its own `io_context` on a thread of its own. Every public
/// member may be called from any thread and returns once the proxy has acted
/// (not once the peers noticed). `stop()` and the destructor must not race
/// with other calls.
class FaultProxy {
 public:
  struct Options {
    std::uint16_t targetPort = 0;
    bool tls = false;  ///< the target serves TLS: `url()` gives a wss URL
  };

  /// Throws `std::system_error` when it cannot listen.
  explicit FaultProxy(Options options);
  ~FaultProxy();

  FaultProxy(const FaultProxy&) = delete;
  FaultProxy& operator=(const FaultProxy&) = delete;

  /// Closes the listener and every connection abruptly and joins the thread.
  /// Calling it again, or anything that acts, does nothing afterwards.
  void stop();

  [[nodiscard]] std::uint16_t port() const;
  /// "ws://127.0.0.1:<port><pathAndQuery>", or with `Options::tls`
  /// "wss://localhost:..." (the test certificate's name).
  [[nodiscard]] std::string url(std::string_view pathAndQuery = "/") const;

  void freeze();
  void unfreeze();
  /// Freezes the connections open now for good, while new ones pass: as
  /// after a sleep or a change of network, when the old connection is dead
  /// (no FIN, no RST) and a new one works.
  void strandOpenConnections();
  void reset();
  /// A one-byte chunk cannot be cut: it is forwarded and the cut waits.
  void cutNextServerChunk();
  /// 0 bytes or a zero interval forwards at full speed again.
  void trickle(std::size_t bytes, std::chrono::milliseconds interval);
  /// Latency added to every chunk read from now on; zero for none.
  void delay(std::chrono::milliseconds latency);

  /// Bytes read since the start, either way, on the wire (TLS and WebSocket
  /// framing included).
  struct ByteCounts {
    std::uint64_t towardsServer = 0;
    std::uint64_t towardsClient = 0;
  };
  [[nodiscard]] ByteCounts bytesForwarded() const;

  /// Connections accepted since the start, and those not yet ended.
  [[nodiscard]] std::size_t connectionCount() const;
  [[nodiscard]] std::size_t openConnections() const;
  bool waitForConnections(std::size_t count, std::chrono::milliseconds timeout) const;

 private:
  class Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace vantor::testing
