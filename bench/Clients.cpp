#include "Clients.hpp"

#include <boost/json/parse.hpp>
#include <boost/json/serialize.hpp>
#include <cstdio>
#include <future>
#include <string>

#include "vantor/realtime/Message.hpp"
#include "vantor/realtime/Push.hpp"

namespace vantor::bench {

namespace asio = boost::asio;
namespace beast = boost::beast;
namespace json = boost::json;
using tcp = asio::ip::tcp;

realtime::Payload echoPayload(std::int64_t n) { return realtime::Payload{{"body", "hello"}, {"i", n}}; }

BareClient::BareClient(std::uint16_t port) {
  ws_.next_layer().connect(tcp::endpoint(asio::ip::make_address("127.0.0.1"), port));
  ws_.next_layer().set_option(tcp::no_delay(true));
  ws_.handshake("127.0.0.1", "/socket/websocket?vsn=2.0.0");
  ws_.text(true);
}

BareClient::~BareClient() {
  beast::error_code ignored;
  ws_.close(beast::websocket::close_code::normal, ignored);
}

void BareClient::send() {
  ++ref_;
  json::array frame{"1", std::to_string(ref_), "room:bench", "echo",
                    json::object{{"body", "hello"}, {"i", ref_}}};
  ws_.write(asio::buffer(json::serialize(frame)));
}

void BareClient::receive() {
  ws_.read(buffer_);
  auto reply = json::parse(std::string_view(static_cast<const char*>(buffer_.data().data()), buffer_.size()));
  buffer_.consume(buffer_.size());
  const auto& frame = reply.as_array();
  if (frame.at(3).as_string() != "phx_reply" || frame.at(4).as_object().at("status").as_string() != "ok") {
    std::fprintf(stderr, "unexpected reply\n");
  }
}

LibraryClient::LibraryClient(std::uint16_t port, bool collectMetrics) {
  socket = realtime::Socket::make("ws://127.0.0.1:" + std::to_string(port) + "/socket");
  socket->setCollectsMetrics(collectMetrics);
  channel = socket->channel("room:bench");
  auto joined = std::make_shared<std::promise<void>>();
  auto whenJoined = joined->get_future();
  channel->join()->receive("ok", [joined](const realtime::Message&) { joined->set_value(); });
  socket->connect();
  whenJoined.wait();
}

LibraryClient::~LibraryClient() { socket->disconnect(); }

}  // namespace vantor::bench
