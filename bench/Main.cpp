// `make bench`: the Google Benchmark suites, then the end-to-end and scaling
// runs, then one "name=value" line per headline number.
#include <benchmark/benchmark.h>

#include <cstdio>
#include <cstdlib>

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

  vantor::bench::Summary summary;
  vantor::bench::runEndToEnd(summary);
  vantor::bench::runScaling(summary);
  vantor::bench::runWireSize();
  std::printf("\n");
  for (const auto& [name, value] : summary) {
    std::printf("%s=%.3f\n", name.c_str(), value);
  }
  return 0;
}
