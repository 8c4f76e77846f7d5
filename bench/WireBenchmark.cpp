// Encoding and decoding wire frames: the per-message cost on both paths.
#include <benchmark/benchmark.h>

#include <boost/json/parse.hpp>

#include "AllocationCounter.hpp"
#include "vantor/realtime/Defaults.hpp"
#include "vantor/realtime/Message.hpp"

namespace {

using namespace vantor::realtime;

const std::string replyText =
    R"(["3","7","room:lobby","phx_reply",{"status":"ok","response":{"body":"hello there","user":"alice","n":42}}])";

void encodeFrame(benchmark::State& state) {
  const boost::json::array frame{"3", "7", "room:lobby", "new_msg",
                                 Payload{{"body", "hello there"}, {"user", "alice"}, {"n", 42}}};
  vantor::bench::AllocationScope allocations;
  for (auto _ : state) {
    benchmark::DoNotOptimize(Defaults::encode(frame));
  }
  state.counters["bytes_alloc/op"] =
      benchmark::Counter(static_cast<double>(allocations.bytes()), benchmark::Counter::kAvgIterations);
  state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * replyText.size()));
}
BENCHMARK(encodeFrame);

void decodeFrameIntoMessage(benchmark::State& state) {
  vantor::bench::AllocationScope allocations;
  for (auto _ : state) {
    auto decoded = Defaults::decode(replyText);
    auto message = Message::fromJson(decoded->as_array());
    benchmark::DoNotOptimize(message->status());
  }
  state.counters["bytes_alloc/op"] =
      benchmark::Counter(static_cast<double>(allocations.bytes()), benchmark::Counter::kAvgIterations);
  state.counters["allocs/op"] =
      benchmark::Counter(static_cast<double>(allocations.count()), benchmark::Counter::kAvgIterations);
  state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * replyText.size()));
}
BENCHMARK(decodeFrameIntoMessage);

}  // namespace
