#pragma once

#include <string_view>

namespace vantor::realtime {

/// The state of a transport's connection.
enum class PhoenixTransportReadyState {
  connecting,  ///< `connect()` was called; the opening handshake is under way
  open,        ///< the WebSocket is open
  closing,     ///< `disconnect` was called
  closed,      ///< initial state; also after a close or a failure
};

[[nodiscard]] constexpr std::string_view toString(PhoenixTransportReadyState state) noexcept {
  switch (state) {
    case PhoenixTransportReadyState::connecting: return "connecting";
    case PhoenixTransportReadyState::open: return "open";
    case PhoenixTransportReadyState::closing: return "closing";
    case PhoenixTransportReadyState::closed: return "closed";
  }
  return "unknown";
}

}  // namespace vantor::realtime
