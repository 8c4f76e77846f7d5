// Reads a line from standard input through an Asio stream in a coroutine on
// its own io_context, then awaits a join that cannot succeed (nothing
// listens) and gets its time-out as an exception.
#include <boost/asio/co_spawn.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/posix/stream_descriptor.hpp>
#include <boost/asio/read_until.hpp>
#include <boost/asio/streambuf.hpp>
#include <boost/asio/use_awaitable.hpp>
#include <cstdio>
#include <istream>
#include <string>
#include <unistd.h>
#include <vantor/realtime/AsyncChannel.hpp>
#include <vantor/realtime/Socket.hpp>

namespace asio = boost::asio;
using namespace vantor::realtime;

int main() {
  asio::io_context application;
  std::string line;
  std::string outcome;
  auto socket = Socket::make("ws://127.0.0.1:9/socket");
  auto channel = socket->channel("room:consumer");
  socket->connect();
  auto session = [&]() -> asio::awaitable<void> {
    asio::posix::stream_descriptor input(application, ::dup(STDIN_FILENO));
    asio::streambuf buffer;
    co_await asio::async_read_until(input, buffer, '\n', asio::use_awaitable);
    std::istream text(&buffer);
    std::getline(text, line);
    try {
      co_await asyncJoin(channel, asio::use_awaitable, 0.2);
    } catch (const ReplyException& failure) {
      outcome = failure.code() == ReplyError::timeout ? "timeout" : failure.what();
    }
  };
  asio::co_spawn(application, session(), [](std::exception_ptr failure) {
    if (failure) {
      std::rethrow_exception(failure);
    }
  });
  application.run();
  socket->disconnect();
  std::printf("consumer-asio: read \"%s\" from standard input; the join ended with %s\n", line.c_str(),
              outcome.c_str());
  return line == "hello" && outcome == "timeout" ? 0 : 1;
}
