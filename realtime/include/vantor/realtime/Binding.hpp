#pragma once

#include <cstdint>
#include <string>

#include "vantor/realtime/Delegated.hpp"
#include "vantor/realtime/Message.hpp"

namespace vantor::realtime {

/// One event binding of a channel: calls `callback` for every message on
/// `event`. `ref` identifies it within its channel, for `Channel::off`.
struct Binding {
  std::string event;
  std::int64_t ref = 0;
  Delegated<Message, void> callback;
};

}  // namespace vantor::realtime
