#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "vantor/realtime/PhoenixTransportDelegate.hpp"
#include "vantor/realtime/PhoenixTransportReadyState.hpp"

namespace vantor::realtime {

/// The interface between a socket and its WebSocket connection. The socket
/// only connects, disconnects, sends and reads `readyState`; everything it
/// learns comes back through the delegate. No operation returns an error: a
/// failure reaches the delegate as `onError` followed by `onClose(999)`.
///
/// Implementations must write `readyState` before calling the delegate, and
/// call the delegate on the main event loop only.
class PhoenixTransport {
 public:
  virtual ~PhoenixTransport() = default;

  [[nodiscard]] virtual PhoenixTransportReadyState readyState() const = 0;

  /// The delegate is held strongly.
  [[nodiscard]] virtual std::shared_ptr<PhoenixTransportDelegate> delegate() const = 0;
  virtual void setDelegate(std::shared_ptr<PhoenixTransportDelegate> delegate) = 0;

  /// Opens the connection asynchronously.
  virtual void connect() = 0;
  /// The WebSocket subprotocols to offer from the next `connect()` on, in
  /// order of preference; none by default. When some are offered, an answer
  /// that names none of them, or another one, fails the connection. A
  /// transport that cannot offer subprotocols keeps this default, which
  /// stops the process for a non-empty list: dropping what the application
  /// asked to send (an auth token) would be worse.
  virtual void setSubprotocols(std::vector<std::string> subprotocols);
  /// Closes the connection with this WebSocket close code and reason.
  virtual void disconnect(int code, std::optional<std::string> reason) = 0;
  /// Sends one text message: the serialised text of a wire frame.
  virtual void send(std::string data) = 0;
  /// Bytes given to `send` and not yet handed to the network, for a producer
  /// that paces itself; 0 for a transport that does not count them. Must be
  /// safe to call from any thread.
  [[nodiscard]] virtual std::uint64_t bufferedAmount() const { return 0; }
};

}  // namespace vantor::realtime
