// vantor-bench-longpoll: what long-poll costs next to WebSocket. Round trips
// per second (an "echo" push and its reply) at 1 and at 64 outstanding, over
// each transport, against the bundled protocol server on loopback. There is
// no target: the numbers show what a user behind an upgrade-blocking proxy
// gives up.
#include <atomic>
#include <chrono>
#include <cstdio>
#include <memory>
#include <thread>

#include "EchoWindow.hpp"
#include "vantor/platform/EventLoop.hpp"
#include "vantor/realtime/Channel.hpp"
#include "vantor/realtime/LongPollTransport.hpp"
#include "vantor/realtime/Push.hpp"
#include "vantor/realtime/Socket.hpp"
#include "vantor/realtime/URLSessionTransport.hpp"
#include "vantor/testing/PhoenixTestServer.hpp"

namespace {

using namespace vantor;
using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

double roundTripsPerSecond(const testing::PhoenixTestServer& server, bool longPoll, int window) {
  realtime::URLSessionConfiguration configuration;
  configuration.proxy = platform::ProxySettings::none();
  auto socket = realtime::Socket::make(
      server.url(), [longPoll, configuration](const boost::urls::url& url) -> std::shared_ptr<realtime::PhoenixTransport> {
        if (longPoll) {
          return realtime::LongPollTransport::make(url, configuration);
        }
        return realtime::URLSessionTransport::make(url, configuration);
      });
  auto channel = socket->channel("room:bench");
  std::atomic<bool> joined{false};
  channel->join()->receive("ok", [&](const realtime::Message&) { joined = true; });
  socket->connect();
  while (!joined) {
    std::this_thread::sleep_for(1ms);
  }
  bench::EchoWindow echoes(channel);
  platform::EventLoop::main().sync([&] { echoes.open(window); });
  std::this_thread::sleep_for(300ms);  // warm-up
  const long before = echoes.answered();
  const auto start = Clock::now();
  std::this_thread::sleep_for(2s);
  const double perSecond =
      static_cast<double>(echoes.answered() - before) / std::chrono::duration<double>(Clock::now() - start).count();
  echoes.close();
  const auto limit = Clock::now() + 20s;
  while (!echoes.settled() && Clock::now() < limit) {
    std::this_thread::sleep_for(1ms);
  }
  socket->disconnect();
  return perSecond;
}

}  // namespace

int main() {
  testing::PhoenixTestServer server({.presence = false, .recordConnections = false});
  std::printf("\nLong-poll against WebSocket, round trips/s against the bundled server\n");
  std::printf("%-34s %12s %12s\n", "", "WebSocket", "long-poll");
  for (int window : {1, 64}) {
    const double webSocket = roundTripsPerSecond(server, false, window);
    const double longPoll = roundTripsPerSecond(server, true, window);
    std::printf("round trips/s, %2d outstanding %15.0f %12.0f\n", window, webSocket, longPoll);
  }
  return 0;
}
