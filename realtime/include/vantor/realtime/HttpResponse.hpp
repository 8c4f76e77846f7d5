#pragma once

#include <string>
#include <utility>
#include <vector>

namespace vantor::realtime {

/// The HTTP response of a WebSocket opening handshake, as far as it came.
struct HttpResponse {
  int statusCode = 0;
  std::string reason;
  std::vector<std::pair<std::string, std::string>> headers;
  std::string body;
};

}  // namespace vantor::realtime
