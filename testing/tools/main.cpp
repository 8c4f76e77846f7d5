// vantor-test-server: runs the loopback protocol server until interrupted,
// for trying clients and the demo by hand.
#include <pthread.h>
#include <signal.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <optional>
#include <string>

#include "vantor/testing/PhoenixTestServer.hpp"
#include "vantor/testing/UpgradeRefusingProxy.hpp"

int main(int argc, char** argv) {
  vantor::testing::PhoenixTestServer::Options options;
  bool quiet = false;
  bool refusingProxy = false;
  auto portOf = [](const char* text) -> std::optional<std::uint16_t> {
    char* end = nullptr;
    const auto port = std::strtoul(text, &end, 10);
    if (*text == '\0' || *end != '\0' || port > 65535) {
      return std::nullopt;
    }
    return static_cast<std::uint16_t>(port);
  };
  for (int i = 1; i < argc; ++i) {
    const bool isPort = std::strcmp(argv[i], "--port") == 0 && i + 1 < argc;
    const auto port = isPort ? portOf(argv[++i]) : std::nullopt;
    if (port) {
      options.port = *port;
    } else if (!isPort && std::strcmp(argv[i], "--quiet") == 0) {
      quiet = true;
    } else if (!isPort && std::strcmp(argv[i], "--upgrade-refusing-proxy") == 0) {
      refusingProxy = true;
    } else {
      std::fprintf(stderr,
                   "usage: vantor-test-server [--port N] [--quiet] [--upgrade-refusing-proxy]\n"
                   "Serves the channel protocol on 127.0.0.1 until Ctrl-C; clients connect to the\n"
                   "printed endpoint. Events: echo, fail, delayed {delay_ms}, noreply, broadcast,\n"
                   "push_back. Frames are traced to stdout unless --quiet. Long-poll is served\n"
                   "at /socket/longpoll. --upgrade-refusing-proxy also runs a proxy that answers\n"
                   "WebSocket upgrades with 403 and passes other requests, both as an HTTP proxy\n"
                   "and in front of the server.\n");
      return 2;
    }
  }
  if (!quiet) {
    options.trace = [](const std::string& line) {
      std::printf("%s\n", line.c_str());
      std::fflush(stdout);
    };
  }

  // Block the signals before the server thread starts so that it inherits the
  // mask and only this thread receives them, through sigwait.
  sigset_t signals;
  sigemptyset(&signals);
  sigaddset(&signals, SIGINT);
  sigaddset(&signals, SIGTERM);
  pthread_sigmask(SIG_BLOCK, &signals, nullptr);

  try {
    vantor::testing::PhoenixTestServer server(std::move(options));
    std::printf("Serving on %s (Ctrl-C to stop)\n", server.url().c_str());
    std::optional<vantor::testing::UpgradeRefusingProxy> proxy;
    if (refusingProxy) {
      proxy.emplace(vantor::testing::UpgradeRefusingProxy::Options{.targetPort = server.port()});
      std::printf("Upgrade-refusing proxy: ws://127.0.0.1:%u/socket in front of the server, or %s as http_proxy\n",
                  proxy->port(), proxy->url().c_str());
    }
    std::fflush(stdout);
    int received = 0;
    sigwait(&signals, &received);
    std::printf("Stopping\n");
  } catch (const std::exception& e) {
    std::fprintf(stderr, "vantor-test-server: %s\n", e.what());
    return 1;
  }
  return 0;
}
