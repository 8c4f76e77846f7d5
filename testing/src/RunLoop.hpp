#pragma once

#include <boost/asio/io_context.hpp>
#include <boost/asio/post.hpp>
#include <cstdio>
#include <exception>
#include <functional>
#include <future>

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

/// Runs `work` on the thread that runs `io` and waits for it. An exception
/// from `work` reaches the caller.
inline void postAndWait(boost::asio::io_context& io, const std::function<void()>& work) {
  std::promise<void> done;
  auto future = done.get_future();
  boost::asio::post(io, [&] {
    try {
      work();
      done.set_value();
    } catch (...) {
      done.set_exception(std::current_exception());
    }
  });
  future.get();
}

}  // namespace vantor::testing::detail
