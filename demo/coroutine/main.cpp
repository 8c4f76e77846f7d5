// vantor-coroutine-demo: one C++20 coroutine on the application's own
// io_context joins a channel, pushes and awaits the replies, waits for a
// broadcast, and leaves; against a bundled local server, or the server at
// --url (which must answer "echo" pushes and relay "shout" as a broadcast).
//
// Which executor, which thread: a coroutine resumes on the executor it was
// spawned on. Spawned on the application's io_context, as here, every
// co_await resumes on the thread that runs that context (main's), not on
// the library's loop thread; the library posts each completion there.
// Spawned on `EventLoop::main().context()` instead, it would resume on the
// loop thread, where the library's callbacks run.
//
//   vantor-coroutine-demo [--url ws://host/socket] [--topic room:lobby]
#include <boost/asio/co_spawn.hpp>
#include <boost/asio/experimental/awaitable_operators.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/use_awaitable.hpp>
#include <boost/json/serialize.hpp>
#include <cstdio>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <thread>

#include "vantor/realtime/AsyncChannel.hpp"
#include "vantor/realtime/Socket.hpp"
#include "vantor/realtime/URLSessionTransport.hpp"
#include "vantor/testing/PhoenixTestServer.hpp"

namespace asio = boost::asio;
using namespace vantor::realtime;
using namespace boost::asio::experimental::awaitable_operators;

namespace {

void say(const std::string& line) {
  std::printf("%s\n", line.c_str());
  std::fflush(stdout);
}

// Where the coroutine resumes after each co_await: on the thread that runs
// the context it was spawned on, or the demo fails.
std::string onWhichThread(std::thread::id application) {
  if (std::this_thread::get_id() != application) {
    throw std::logic_error("resumed on another thread than the application's");
  }
  return "on the application's thread";
}

asio::awaitable<void> session(std::shared_ptr<Channel> channel, std::thread::id application) {
  Message reply = co_await asyncJoin(channel, boost::asio::use_awaitable);
  const Payload hello{{"body", "hi"}};  // named: GCC 12 cannot brace-initialise an argument inside co_await
  Message echo = co_await asyncPush(channel, "echo", hello, boost::asio::use_awaitable);
  say("joined " + channel->topic() + ": " + reply.status().value_or("?"));
  say("echo answered: " + boost::json::serialize(echo.payload()) + ", resumed " + onWhichThread(application));

  // Wait for a broadcast and cause it, together: the receive starts first,
  // so it cannot miss the broadcast that the second operation sends.
  const Payload shout{{"body", "anyone there?"}};
  auto sendBroadcast = [&]() -> asio::awaitable<void> {
    channel->push("broadcast", shout);  // a broadcast gets no reply
    co_return;
  };
  const auto heard = co_await (asyncReceive(channel, std::string("broadcast"), asio::use_awaitable) &&
                               sendBroadcast());
  say("heard a broadcast: " + boost::json::serialize(heard.payload()));

  try {
    const Payload why{{"why", "to show an error"}};
    co_await asyncPush(channel, std::string("fail"), why, asio::use_awaitable);
  } catch (const ReplyException& failure) {
    // what() carries the server's reason; reply() is the whole answer.
    say(std::string("a push failed as expected: ") + failure.what());
  }

  const auto left = co_await asyncLeave(channel, asio::use_awaitable);
  say("left: " + left.status().value_or("?"));
}

}  // namespace

int main(int argc, char** argv) {
  std::string url;
  std::string topic = "room:lobby";
  for (int i = 1; i < argc; ++i) {
    const std::string arg = argv[i];
    if (arg == "--url" && i + 1 < argc) {
      url = argv[++i];
    } else if (arg == "--topic" && i + 1 < argc) {
      topic = argv[++i];
    } else {
      std::fprintf(stderr, "usage: vantor-coroutine-demo [--url URL] [--topic TOPIC]\n");
      return arg == "--help" || arg == "-h" ? 0 : 2;
    }
  }
  std::optional<vantor::testing::PhoenixTestServer> server;
  if (url.empty()) {
    server.emplace();
    url = server->url();
    say("bundled server at " + url);
  }
  URLSessionConfiguration configuration;
  if (server) {
    // The bundled server is on this machine: no proxy, whatever the environment says.
    configuration.proxy = vantor::platform::ProxySettings::none();
  }
  auto socket = Socket::make(url, [configuration](const boost::urls::url& endpoint) -> std::shared_ptr<PhoenixTransport> {
    return URLSessionTransport::make(endpoint, configuration);
  });
  auto channel = socket->channel(topic);
  socket->connect();

  asio::io_context application;
  std::exception_ptr failure;
  asio::co_spawn(application, session(channel, std::this_thread::get_id()),
                 [&](std::exception_ptr e) { failure = e; });
  application.run();
  socket->disconnect();
  if (failure) {
    try {
      std::rethrow_exception(failure);
    } catch (const std::exception& e) {
      std::fprintf(stderr, "the session failed: %s\n", e.what());
    }
    return 1;
  }
  return 0;
}
