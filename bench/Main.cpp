// `make bench`: the Google Benchmark suites, then the end-to-end and scaling
// runs, then one "name=value" line per headline number.
#include <benchmark/benchmark.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "Summary.hpp"

int main(int argc, char** argv) {
  // The benchmarks' servers are on loopback; a proxy of the machine's must
  // not sit in between. Cleared before any thread starts.
  for (const char* name : {"http_proxy", "https_proxy", "HTTP_PROXY", "HTTPS_PROXY"}) {
    ::unsetenv(name);
  }
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) {
    return 1;
  }
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  std::fflush(stdout);

  // VANTOR_BENCH_ONLY=e2e|scaling|wire runs one part (with
  // --benchmark_filter=none to skip the suites).
  const char* only = std::getenv("VANTOR_BENCH_ONLY");
  auto runs = [only](const char* part) { return only == nullptr || std::strcmp(only, part) == 0; };
  vantor::bench::Summary summary;
  if (runs("e2e")) {
    vantor::bench::runEndToEnd(summary);
  }
  if (runs("scaling")) {
    vantor::bench::runScaling(summary);
  }
  if (runs("wire")) {
    vantor::bench::runWireSize();
  }
  std::printf("\n");
  for (const auto& [name, value] : summary) {
    std::printf("%s=%.3f\n", name.c_str(), value);
  }
  return 0;
}
