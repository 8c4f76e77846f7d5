// Push and reply over a real WebSocket to the loopback server.
#include <benchmark/benchmark.h>

#include <atomic>
#include <thread>

#include "vantor/realtime/Channel.hpp"
#include "vantor/realtime/Push.hpp"
#include "vantor/realtime/Socket.hpp"
#include "vantor/testing/PhoenixTestServer.hpp"

namespace {

using namespace vantor::realtime;

void pushReplyRoundTrips(benchmark::State& state) {
  vantor::testing::PhoenixTestServer server(vantor::testing::PhoenixTestServer::Options{.presence = false});
  auto socket = Socket::make(server.url());
  auto channel = socket->channel("room:bench");
  std::atomic<bool> joined{false};
  channel->join()->receive("ok", [&](const Message&) { joined = true; });
  socket->connect();
  while (!joined) {
    std::this_thread::yield();
  }
  const auto inFlight = state.range(0);
  for (auto _ : state) {
    std::atomic<std::int64_t> replies{0};
    for (std::int64_t i = 0; i < inFlight; ++i) {
      channel->push("echo", {{"i", i}})->receive("ok", [&](const Message&) { ++replies; });
    }
    while (replies < inFlight) {
      std::this_thread::yield();
    }
  }
  state.SetItemsProcessed(state.iterations() * inFlight);
  socket->disconnect();
}
BENCHMARK(pushReplyRoundTrips)->Arg(1)->Arg(64)->UseRealTime()->Unit(benchmark::kMicrosecond);

}  // namespace
