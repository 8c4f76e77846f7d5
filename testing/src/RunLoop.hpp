#pragma once

#include <boost/asio/io_context.hpp>
#include <cstdio>
#include <exception>

namespace vantor::testing::detail {

/// Runs `io` until it is stopped. A handler that throws is reported on
/// standard error under `name` and the loop goes on: one bad test peer must
/// not stop the server for every other connection.
inline void runUntilStopped(boost::asio::io_context& io, const char* name) {
  for (;;) {
    try {
      io.run();
      return;
    } catch (const std::exception& e) {
      std::fprintf(stderr, "%s: handler threw: %s\n", name, e.what());
    }
  }
}

}  // namespace vantor::testing::detail
