#include "vantor/realtime/PhoenixTransport.hpp"

#include "vantor/platform/Fatal.hpp"

namespace vantor::realtime {

void PhoenixTransport::setSubprotocols(std::vector<std::string> subprotocols) {
  if (!subprotocols.empty()) {
    platform::fatalError("PhoenixTransport: this transport cannot offer WebSocket subprotocols");
  }
}

}  // namespace vantor::realtime
