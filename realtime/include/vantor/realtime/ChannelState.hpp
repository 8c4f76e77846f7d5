#pragma once

#include <string_view>

namespace vantor::realtime {

/// The lifecycle state of a channel.
enum class ChannelState { closed, errored, joined, joining, leaving };

[[nodiscard]] constexpr std::string_view toString(ChannelState state) noexcept {
  switch (state) {
    case ChannelState::closed: return "closed";
    case ChannelState::errored: return "errored";
    case ChannelState::joined: return "joined";
    case ChannelState::joining: return "joining";
    case ChannelState::leaving: return "leaving";
  }
  return "unknown";
}

}  // namespace vantor::realtime
