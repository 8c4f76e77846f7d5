#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>

namespace vantor::testing {

/// A small synchronous WebSocket client that the server tests drive. It is
/// independent of the realtime client on purpose: these tests check the
/// servers, not the product. Every operation gives up after `timeout`.
class BlockingClient {
 public:
  struct Options {
    /// PEM of a CA to trust for wss; without it only the system store counts.
    std::optional<std::string> trustedCaPem = std::nullopt;
    std::chrono::milliseconds timeout = std::chrono::seconds(5);
  };

  /// Thrown when connecting or the opening handshake fails.
  struct HandshakeError : std::runtime_error {
    HandshakeError(const std::string& what, int status)
        : std::runtime_error(what), httpStatus(status) {}
    int httpStatus;  ///< the refusing HTTP status, 0 when there was no response
  };

  struct Frame {
    enum class Kind { text, binary, close, error };
    Kind kind;
    std::string data;        // payload, close reason or error text
    std::uint16_t code = 0;  // close code
  };

  /// Connects and upgrades to a ws:// or wss:// URL.
  explicit BlockingClient(const std::string& url);
  BlockingClient(const std::string& url, Options options);
  ~BlockingClient();
  BlockingClient(const BlockingClient&) = delete;
  BlockingClient& operator=(const BlockingClient&) = delete;

  void sendText(std::string_view text);
  void sendBinary(std::string_view bytes);
  /// The next frame; `close` once the server closed, `error` when the
  /// connection failed or nothing came within the timeout.
  Frame read();
  /// Runs the close handshake with `code`.
  void close(std::uint16_t code = 1000);

 private:
  struct Impl;
  std::unique_ptr<Impl> impl_;
};

/// Opens a TCP connection to 127.0.0.1:`port`, writes `bytes` and closes it
/// at once: a client that misbehaves before or during the handshake.
void sendRawAndClose(std::uint16_t port, std::string_view bytes);

}  // namespace vantor::testing
