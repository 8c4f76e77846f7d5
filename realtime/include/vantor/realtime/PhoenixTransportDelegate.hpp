#pragma once

#include <optional>
#include <string>

#include "vantor/realtime/HttpResponse.hpp"
#include "vantor/realtime/TransportError.hpp"

namespace vantor::realtime {

/// What a transport reports about its connection. Every call comes on the
/// main event loop, one at a time.
class PhoenixTransportDelegate {
 public:
  virtual ~PhoenixTransportDelegate() = default;

  /// The connection is open.
  virtual void onOpen() = 0;
  /// The connection failed. `response` is the HTTP response of the opening
  /// handshake where the handshake got that far.
  virtual void onError(const TransportError& error, const std::optional<HttpResponse>& response) = 0;
  /// One text frame arrived, whole.
  virtual void onMessage(const std::string& message) = 0;
  /// The connection is closed with this close code (999 after a failure).
  virtual void onClose(int code) = 0;
};

}  // namespace vantor::realtime
