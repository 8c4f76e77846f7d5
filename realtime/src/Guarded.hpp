#pragma once

#include <exception>
#include <string>
#include <string_view>

#include "vantor/realtime/Socket.hpp"

namespace vantor::realtime::detail {

/// Runs `callback`, a call into the application (a callback, hook, binding,
/// encoder or decoder). An exception from it is logged as one line through
/// `socket`'s logger, when there is one, and goes no further: one faulty
/// callback must not stop the connection, the next callback or the next
/// frame. Returns false when the callback threw.
template <class F>
bool guarded(const Socket* socket, std::string_view what, F&& callback) noexcept {
  std::string failure;
  try {
    callback();
    return true;
  } catch (const std::exception& e) {
    try {
      failure = e.what();
    } catch (...) {
    }
  } catch (...) {
    failure = "an unknown exception";
  }
  if (socket != nullptr) {
    try {
      socket->logItems("error", std::string(what) + " threw: " + failure);
    } catch (...) {
    }
  }
  return false;
}

}  // namespace vantor::realtime::detail
