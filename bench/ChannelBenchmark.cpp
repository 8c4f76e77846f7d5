// Dispatching messages to channel bindings, and what a channel costs.
#include <benchmark/benchmark.h>

#include "AllocationCounter.hpp"
#include "vantor/platform/EventLoop.hpp"
#include "vantor/realtime/Channel.hpp"
#include "vantor/realtime/Socket.hpp"

namespace {

using namespace vantor::realtime;
using vantor::platform::EventLoop;

std::shared_ptr<Socket> offlineSocket() {
  // Never connected: the benchmarks exercise the client's own work only.
  return Socket::make("ws://127.0.0.1:9/socket");
}

// Triggers on the loop thread, as received frames are: bindings of other
// events are skipped, those of the event all run.
void triggerOnTheLoop(benchmark::State& state) {
  auto socket = offlineSocket();
  auto channel = socket->channel("room:1");
  const auto bindings = state.range(0);
  std::int64_t calls = 0;
  for (std::int64_t i = 0; i < bindings; ++i) {
    channel->on(i % 2 == 0 ? "news" : "other", [&calls](const Message&) { ++calls; });
  }
  const Message message("", std::nullopt, "room:1", "news", Payload{{"body", "hi"}});
  for (auto _ : state) {
    EventLoop::main().sync([&] {
      for (int n = 0; n < 100; ++n) {
        channel->trigger(message);
      }
    });
  }
  state.SetItemsProcessed(state.iterations() * 100);
  benchmark::DoNotOptimize(calls);
}
BENCHMARK(triggerOnTheLoop)->Arg(1)->Arg(8)->Arg(64);

// A call from a host thread pays one hop onto the loop and back.
void callFromAHostThread(benchmark::State& state) {
  auto socket = offlineSocket();
  for (auto _ : state) {
    benchmark::DoNotOptimize(socket->makeRef());
  }
}
BENCHMARK(callFromAHostThread);

// Memory held per channel and per buffered push.
void channelAndBufferedPushFootprint(benchmark::State& state) {
  auto socket = offlineSocket();
  std::size_t channelBytes = 0;
  std::size_t pushBytes = 0;
  for (auto _ : state) {
    vantor::bench::AllocationScope channelScope;
    auto channel = socket->channel("room:footprint");
    channelBytes = channelScope.bytes();
    channel->join();
    vantor::bench::AllocationScope pushScope;
    channel->push("new_msg", {{"body", "hello"}});
    pushBytes = pushScope.bytes();
    state.PauseTiming();
    channel->leave();
    state.ResumeTiming();
  }
  state.counters["channel_bytes"] = static_cast<double>(channelBytes);
  state.counters["buffered_push_bytes"] = static_cast<double>(pushBytes);
}
BENCHMARK(channelAndBufferedPushFootprint)->Iterations(200);

}  // namespace
