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

BareConnection::BareConnection(std::uint16_t port) {
  ws.next_layer().connect(tcp::endpoint(asio::ip::make_address("127.0.0.1"), port));
  ws.next_layer().set_option(tcp::no_delay(true));
  ws.handshake("127.0.0.1", "/socket/websocket?vsn=2.0.0");
  ws.text(true);
}

BareConnection::~BareConnection() {
  beast::error_code ignored;
  ws.close(beast::websocket::close_code::normal, ignored);
}

std::string BareConnection::nextFrame() {
  ++ref;
  json::array frame{"1", std::to_string(ref), "room:bench", "echo", json::object{{"body", "hello"}, {"i", ref}}};
  return json::serialize(frame);
}

void BareConnection::takeReply() {
  auto reply = json::parse(std::string_view(static_cast<const char*>(buffer.data().data()), buffer.size()));
  buffer.consume(buffer.size());
  const auto& frame = reply.as_array();
  if (frame.at(3).as_string() != "phx_reply" || frame.at(4).as_object().at("status").as_string() != "ok") {
    std::fprintf(stderr, "unexpected reply\n");
  }
}

void BareClient::send() { connection_.ws.write(asio::buffer(connection_.nextFrame())); }

void BareClient::receive() {
  connection_.ws.read(connection_.buffer);
  connection_.takeReply();
}

std::int64_t AsyncBareClient::run(int window, std::function<bool()> more) {
  more_ = std::move(more);
  done_ = 0;
  for (; outstanding_ < window && more_(); ++outstanding_) {
    send();
  }
  if (outstanding_ > 0) {
    read();
  }
  connection_.context.restart();
  connection_.context.run();
  return done_;
}

void AsyncBareClient::send() {
  writes_.push_back(connection_.nextFrame());
  if (writes_.size() == 1) {
    writeNext();
  }
}

void AsyncBareClient::writeNext() {
  connection_.ws.async_write(asio::buffer(writes_.front()), [this](beast::error_code error, std::size_t) {
    writes_.pop_front();
    if (!error && !writes_.empty()) {
      writeNext();
    }
  });
}

void AsyncBareClient::read() {
  connection_.ws.async_read(connection_.buffer, [this](beast::error_code error, std::size_t) {
    if (error) {
      std::fprintf(stderr, "read failed: %s\n", error.message().c_str());
      return;
    }
    connection_.takeReply();
    ++done_;
    --outstanding_;
    if (more_()) {
      send();
      ++outstanding_;
    }
    if (outstanding_ > 0) {
      read();
    }
  });
}

LibraryClient::LibraryClient(std::uint16_t port, bool collectMetrics, std::size_t maximumGatheredBytes) {
  realtime::URLSessionConfiguration configuration;
  configuration.maximumGatheredBytes = maximumGatheredBytes;
  socket = realtime::Socket::make("ws://127.0.0.1:" + std::to_string(port) + "/socket",
                                  [configuration](const boost::urls::url& url) -> std::shared_ptr<realtime::PhoenixTransport> {
                                    return realtime::URLSessionTransport::make(url, configuration);
                                  });
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
