#pragma once

#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace vantor::demo {

struct InteractiveOptions {
  std::string url;
  std::string topic = "room:lobby";
  std::string event = "new_msg";
  std::vector<std::pair<std::string, std::string>> params;
  std::vector<std::pair<std::string, std::string>> joinParams;
  std::string caFile;
  std::optional<std::string> authToken;
  bool compress = false;
  bool stats = false;
  std::string proxy;  // a proxy URL, "none", or empty for the environment's
  std::string transport = "websocket";  // websocket, longpoll, or auto (WebSocket, else long-poll)
  bool verbose = false;
};

/// Reads lines from standard input and pushes them until end of input or
/// Ctrl-C; returns the process exit code.
int runInteractive(const InteractiveOptions& options);

}  // namespace vantor::demo
