// Joins a room, shows who is present, pushes one message and prints the
// server's answer. Usage: quickstart [ws://host:port/socket]
#include <boost/json/serialize.hpp>
#include <chrono>
#include <future>
#include <iostream>
#include <memory>
#include <string>
#include <vantor/realtime/Channel.hpp>
#include <vantor/realtime/Presence.hpp>
#include <vantor/realtime/Push.hpp>
#include <vantor/realtime/Socket.hpp>

using namespace vantor::realtime;

int main(int argc, char** argv) {
  const std::string url = argc > 1 ? argv[1] : "wss://example.com/socket";
  auto socket = Socket::make(url, Payload{{"token", "abc"}});
  socket->onError([](const TransportError& error, const std::optional<HttpResponse>&) {
    std::cerr << "connection error: " << error.description << "\n";
  });

  auto channel = socket->channel("room:lobby", {{"user_id", "alice"}});
  channel->on("new_msg", [](const Message& message) {
    std::cout << boost::json::serialize(message.payload()) << "\n";
  });
  auto presence = Presence::make(channel);
  // Weakly: the presence keeps its callbacks, so a strong capture would keep it alive for ever.
  presence->onSync([weak = std::weak_ptr<Presence>(presence)] {
    if (auto presence = weak.lock()) {
      std::cout << presence->state().size() << " present\n";
    }
  });

  channel->join()
      ->receive("ok", [](const Message&) { std::cout << "joined\n"; })
      ->receive("error", [](const Message& reply) { std::cerr << boost::json::serialize(reply.payload()) << "\n"; });
  socket->connect();

  // Sent once joined. Callbacks run on the library's event loop thread.
  std::promise<bool> answered;
  channel->push("new_msg", {{"body", "hello"}})
      ->receive("ok", [&](const Message& reply) {
        std::cout << "answer: " << boost::json::serialize(reply.payload()) << "\n";
        answered.set_value(true);
      })
      ->receive("error", [&](const Message&) { answered.set_value(false); })
      ->receive("timeout", [&](const Message&) { answered.set_value(false); });  // no answer in 10 s

  const bool ok = answered.get_future().get();
  socket->disconnect();
  return ok ? 0 : 1;
}
