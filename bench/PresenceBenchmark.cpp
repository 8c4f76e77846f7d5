// Merging presence snapshots and changes as rooms grow.
#include <benchmark/benchmark.h>

#include "vantor/realtime/Presence.hpp"

namespace {

using vantor::realtime::Presence;

Presence::State roomOf(std::int64_t users, int generation) {
  Presence::State state;
  for (std::int64_t i = 0; i < users; ++i) {
    state["user" + std::to_string(i)]["metas"] = {
        Presence::Meta{{"phx_ref", "r" + std::to_string(i) + "-" + std::to_string(generation)}}};
  }
  return state;
}

void snapshotReplacingEveryOccurrence(benchmark::State& state) {
  const auto before = roomOf(state.range(0), 1);
  const auto after = roomOf(state.range(0), 2);
  auto ignore = [](auto&&...) {};
  for (auto _ : state) {
    benchmark::DoNotOptimize(Presence::syncState(before, after, ignore, ignore));
  }
  state.SetItemsProcessed(state.iterations() * state.range(0));
}
BENCHMARK(snapshotReplacingEveryOccurrence)->Arg(10)->Arg(100)->Arg(1000);

void oneJoinDiffInALargeRoom(benchmark::State& state) {
  const auto room = roomOf(state.range(0), 1);
  const Presence::Diff diff{{"joins", roomOf(1, 7)}, {"leaves", {}}};
  auto ignore = [](auto&&...) {};
  for (auto _ : state) {
    benchmark::DoNotOptimize(Presence::syncDiff(room, diff, ignore, ignore));
  }
}
BENCHMARK(oneJoinDiffInALargeRoom)->Arg(10)->Arg(100)->Arg(1000);

}  // namespace
