// The consumer's own Asio code, built with the consumer's own settings. It
// uses interfaces that BOOST_ASIO_NO_DEPRECATED removes (io_context::work,
// io_context::post), so it compiles only if the library keeps its Asio
// build settings to itself.
#include <boost/asio/io_context.hpp>

int runOwnAsio() {
  boost::asio::io_context io;
  int ran = 0;
  {
    boost::asio::io_context::work work(io);
    io.post([&] { ++ran; });
  }
  io.run();
  return ran;
}
