#pragma once

#include <string_view>

namespace vantor::realtime {

/// The reserved event names of the protocol.
struct ChannelEvent {
  ChannelEvent() = delete;

  static constexpr std::string_view heartbeat = "heartbeat";
  static constexpr std::string_view join = "phx_join";
  static constexpr std::string_view leave = "phx_leave";
  static constexpr std::string_view reply = "phx_reply";
  static constexpr std::string_view error = "phx_error";
  static constexpr std::string_view close = "phx_close";

  /// True for exactly "phx_join", "phx_leave", "phx_reply", "phx_error" and
  /// "phx_close", compared as whole, case-sensitive strings. "heartbeat" is
  /// not a lifecycle event. Channels drop lifecycle messages that carry
  /// another join's reference.
  static constexpr bool isLifecyleEvent(std::string_view event) noexcept {
    return event == join || event == leave || event == reply || event == error || event == close;
  }
};

}  // namespace vantor::realtime
