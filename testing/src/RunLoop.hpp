#pragma once

#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/post.hpp>
#include <cstdint>
#include <cstdio>
#include <exception>
#include <functional>
#include <future>
#include <string>
#include <string_view>

// What the loopback servers and the fault proxy share: a thread that runs
// their `io_context`, calls carried onto it, the listener and the URL.
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

/// Runs `work` on the thread that runs `io` (inline when already there) and
/// waits for it. An exception from `work` reaches the caller.
inline void runOn(boost::asio::io_context& io, const std::function<void()>& work) {
  if (io.get_executor().running_in_this_thread()) {
    return work();
  }
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

/// Opens, binds and listens on `address`:`port` (0: a free port); returns the port.
inline std::uint16_t listen(boost::asio::ip::tcp::acceptor& acceptor, const std::string& address,
                            std::uint16_t port) {
  boost::asio::ip::tcp::endpoint endpoint(boost::asio::ip::make_address_v4(address), port);
  acceptor.open(endpoint.protocol());
  acceptor.set_option(boost::asio::ip::tcp::acceptor::reuse_address(true));
  acceptor.bind(endpoint);
  acceptor.listen();
  return acceptor.local_endpoint().port();
}

/// "ws://<address>:<port>/path", or with TLS "wss://localhost:..." for
/// 127.0.0.1, the name the test certificate holds.
inline std::string url(bool tls, const std::string& address, std::uint16_t port,
                       std::string_view pathAndQuery) {
  std::string result = !tls ? "ws://" + address
                       : address == "127.0.0.1" ? std::string("wss://localhost")
                                                : "wss://" + address;
  result += ":" + std::to_string(port);
  if (pathAndQuery.empty() || pathAndQuery.front() != '/') {
    result += '/';
  }
  return result.append(pathAndQuery);
}

}  // namespace vantor::testing::detail
