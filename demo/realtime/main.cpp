// vantor-demo: with no arguments, a scripted tour of the realtime client
// against a server it starts on loopback; with --url, an interactive client.
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "InteractiveClient.hpp"
#include "ScriptedDemo.hpp"
#include "vantor/realtime/Socket.hpp"

namespace {

void usage() {
  std::puts(
      "usage: vantor-demo                      scripted demo against a bundled local server\n"
      "       vantor-demo --url URL [options]  interactive client for a real server\n"
      "options:\n"
      "  --topic TOPIC     channel to join (default room:lobby)\n"
      "  --event EVENT     event name for the lines you type (default new_msg)\n"
      "  --param KEY=VALUE connection parameter, repeatable\n"
      "  --join KEY=VALUE  join parameter, repeatable\n"
      "  --ca FILE         trust this PEM certificate authority too\n"
      "  --auth-token TOKEN  send TOKEN in the WebSocket subprotocol, not the URL\n"
      "  --compress        offer permessage-deflate compression\n"
      "  --transport websocket|longpoll|auto\n"
      "                    auto starts with WebSocket and falls back to long-poll\n"
      "                    when the upgrade fails and plain HTTP works\n"
      "  --stats           count traffic and outcomes; print them at every heartbeat\n"
      "  --proxy URL|none  HTTP proxy to tunnel through, or none; by default\n"
      "                    https_proxy / http_proxy and no_proxy from the environment\n"
      "  --verbose         print the client's log lines");
}

}  // namespace

int main(int argc, char** argv) {
  vantor::demo::InteractiveOptions options;
  bool interactive = false;
  for (int i = 1; i < argc; ++i) {
    const std::string arg = argv[i];
    auto value = [&]() -> std::string {
      if (i + 1 >= argc) {
        std::fprintf(stderr, "%s needs a value\n", arg.c_str());
        std::exit(2);
      }
      return argv[++i];
    };
    auto pair = [&](std::vector<std::pair<std::string, std::string>>& into) {
      const auto text = value();
      const auto equals = text.find('=');
      if (equals == std::string::npos) {
        std::fprintf(stderr, "%s takes KEY=VALUE, got %s\n", arg.c_str(), text.c_str());
        std::exit(2);
      }
      into.emplace_back(text.substr(0, equals), text.substr(equals + 1));
    };
    if (arg == "--url") {
      options.url = value();
      interactive = true;
    } else if (arg == "--topic") {
      options.topic = value();
    } else if (arg == "--event") {
      options.event = value();
    } else if (arg == "--param") {
      pair(options.params);
    } else if (arg == "--join") {
      pair(options.joinParams);
    } else if (arg == "--ca") {
      options.caFile = value();
    } else if (arg == "--auth-token") {
      options.authToken = value();
    } else if (arg == "--transport") {
      options.transport = value();
      if (options.transport != "websocket" && options.transport != "longpoll" && options.transport != "auto") {
        std::fprintf(stderr, "--transport takes websocket, longpoll or auto\n");
        return 2;
      }
    } else if (arg == "--compress") {
      options.compress = true;
    } else if (arg == "--stats") {
      options.stats = true;
    } else if (arg == "--proxy") {
      options.proxy = value();
    } else if (arg == "--verbose") {
      options.verbose = true;
    } else if (arg == "--help" || arg == "-h") {
      usage();
      return 0;
    } else {
      std::fprintf(stderr, "unknown option %s\n", arg.c_str());
      usage();
      return 2;
    }
  }
  if (interactive) {
    // A typo in a URL is the user's, not a programming error: say why and
    // stop, instead of letting the socket stop the process.
    if (auto problem = vantor::realtime::Socket::checkEndpoint(options.url)) {
      std::fprintf(stderr, "vantor-demo: cannot use --url %s: %s\n", options.url.c_str(), problem->c_str());
      return 2;
    }
  }
  return interactive ? vantor::demo::runInteractive(options) : vantor::demo::runScripted();
}
