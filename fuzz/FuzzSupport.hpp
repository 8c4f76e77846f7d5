#pragma once

// What the fuzz targets share: splitting an input into lines, running the
// main event loop on the fuzzer's own thread, and reporting a broken promise.

#include <boost/asio/io_context.hpp>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string_view>
#include <vector>

#include "vantor/platform/EventLoop.hpp"

namespace vantor::fuzz {

/// The input cut at each '\n', at most `limit` lines; the rest is ignored.
inline std::vector<std::string_view> lines(const std::uint8_t* data, std::size_t size,
                                           std::size_t limit) {
  std::vector<std::string_view> result;
  std::string_view rest(reinterpret_cast<const char*>(data), size);
  while (result.size() < limit) {
    const auto end = rest.find('\n');
    result.push_back(rest.substr(0, end));
    if (end == std::string_view::npos) {
      break;
    }
    rest.remove_prefix(end + 1);
  }
  return result;
}

/// Makes the fuzzer's thread the main loop's. Library calls then act at once
/// on this thread, and timers only fire inside `runReadyWork`, so an input
/// plays the same way every time. Call it from LLVMFuzzerInitialize.
inline void useFuzzerThreadAsLoop() { platform::EventLoop::useHostThreadForMain(); }

/// Runs up to `limit` handlers of the loop that are ready now: timers that
/// have expired, work posted meanwhile, and the withdrawal of cancelled
/// timers (which releases what they hold).
inline void runReadyWork(std::size_t limit) {
  auto& context = platform::EventLoop::main().context();
  for (std::size_t i = 0; i < limit && context.poll_one() != 0; ++i) {
  }
}

/// Plays one input a line at a time on a fresh `Session` (default
/// constructible, with `play(std::string_view)`), then lets the withdrawn
/// and expired timers of the session release what they hold.
template <class Session>
void playSession(const std::uint8_t* data, std::size_t size, std::size_t maxLines) {
  {
    Session session;
    for (auto line : lines(data, size, maxLines)) {
      session.play(line);
    }
  }
  runReadyWork(1000);
}

/// Stops the process so that libFuzzer reports the input: a property the
/// library promises does not hold.
[[noreturn]] inline void violated(const char* what) {
  std::fprintf(stderr, "property violated: %s\n", what);
  std::abort();
}

}  // namespace vantor::fuzz
