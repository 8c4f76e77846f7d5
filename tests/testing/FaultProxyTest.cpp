// The fault proxy and the servers' handshake and close faults, driven by a
// plain Beast WebSocket client.
#include "vantor/testing/FaultProxy.hpp"

#include <gtest/gtest.h>

#include <boost/asio/read.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/beast/core.hpp>
#include <boost/beast/websocket.hpp>
#include <boost/json/parse.hpp>
#include <boost/json/serialize.hpp>

#include <chrono>
#include <optional>
#include <ostream>
#include <string>
#include <thread>
#include <variant>

#include "vantor/testing/PhoenixTestServer.hpp"

namespace vantor::testing {
namespace {

namespace asio = boost::asio;
namespace beast = boost::beast;
namespace websocket = beast::websocket;
namespace json = boost::json;
using namespace std::chrono_literals;
using error_code = boost::system::error_code;
using tcp = asio::ip::tcp;

constexpr auto kPatience = 3s;  // only catches hangs

// A blocking WebSocket client with a time limit on every step.
class Client {
 public:
  // TCP connect and upgrade to "/socket/websocket?vsn=2.0.0" on `port`.
  error_code connect(std::uint16_t port, std::chrono::milliseconds limit = kPatience) {
    auto ec = run(limit, [&](auto done) {
      ws_.next_layer().async_connect(tcp::endpoint(asio::ip::make_address("127.0.0.1"), port),
                                     done);
    });
    if (ec) {
      return ec;
    }
    return run(limit, [&](auto done) {
      ws_.async_handshake("127.0.0.1", "/socket/websocket?vsn=2.0.0", done);
    });
  }

  error_code write(const std::string& text) {
    return run(kPatience, [&](auto done) { ws_.async_write(asio::buffer(text), done); });
  }

  // One message, or the error that ended the connection.
  std::variant<std::string, error_code> read() {
    beast::flat_buffer buffer;
    auto ec = run(kPatience, [&](auto done) { ws_.async_read(buffer, done); });
    if (ec) {
      return ec;
    }
    return beast::buffers_to_string(buffer.data());
  }

  // Five nulls when no message came, so that a test that indexes the frame
  // fails there instead of reading past its end.
  json::array readFrame() {
    auto message = read();
    EXPECT_TRUE(std::holds_alternative<std::string>(message));
    return std::holds_alternative<std::string>(message)
               ? json::parse(std::get<std::string>(message)).as_array()
               : json::array(5);
  }

  error_code readError() {
    auto message = read();
    return std::holds_alternative<error_code>(message) ? std::get<error_code>(message)
                                                       : error_code{};
  }

  [[nodiscard]] std::uint16_t closeCode() const { return ws_.reason().code; }
  tcp::socket& socket() { return ws_.next_layer().socket(); }

 private:
  template <class Start>
  error_code run(std::chrono::milliseconds limit, Start start) {
    std::optional<error_code> result;
    ws_.next_layer().expires_after(limit);
    start([&](error_code ec, auto&&...) { result = ec; });
    io_.restart();
    io_.run();
    return result.value_or(asio::error::timed_out);
  }

  asio::io_context io_;
  websocket::stream<beast::tcp_stream> ws_{io_};
};

std::string frame(const json::value& joinRef, const json::value& ref, std::string_view topic,
                  std::string_view event, json::object payload = {}) {
  return json::serialize(json::array{joinRef, ref, json::value(topic), json::value(event),
                                     std::move(payload)});
}

std::string heartbeat(int ref) {
  return frame(nullptr, json::value(std::to_string(ref)), "phoenix", "heartbeat");
}

// --- The proxy ---------------------------------------------------------------------------

TEST(FaultProxy, FrozenHoldsDataAndHandshakesThenForwardsWhatItHeld) {
  PhoenixTestServer server;
  FaultProxy proxy{FaultProxy::Options{.targetPort = server.port()}};
  Client client;
  ASSERT_FALSE(client.connect(proxy.port()));
  EXPECT_EQ(proxy.openConnections(), 1U);
  proxy.freeze();
  ASSERT_FALSE(client.write(heartbeat(1)));
  Client late;
  EXPECT_EQ(late.connect(proxy.port(), 200ms), beast::error::timeout)
      << "the handshake through a frozen proxy hangs";
  EXPECT_TRUE(proxy.waitForConnections(2, kPatience)) << "accepted at TCP level all the same";
  EXPECT_EQ(server.heartbeatsReceived(), 0U);
  EXPECT_EQ(server.connectParams().size(), 1U);

  proxy.unfreeze();
  EXPECT_EQ(client.readFrame()[1], "1") << "the held heartbeat went through";
  Client fresh;
  EXPECT_FALSE(fresh.connect(proxy.port()));
}

TEST(FaultProxy, ACutChunkArrivesInPartThenEnds) {
  PhoenixTestServer server;
  FaultProxy proxy{FaultProxy::Options{.targetPort = server.port()}};
  Client client;
  ASSERT_FALSE(client.connect(proxy.port()));
  proxy.cutNextServerChunk();
  server.sendRaw(std::string(1000, 'x'));  // 1004 bytes on the wire
  error_code ec;
  std::string received;
  auto n = asio::read(client.socket(), asio::dynamic_buffer(received), ec);
  EXPECT_EQ(ec, asio::error::eof);
  EXPECT_GE(n, 1U);
  EXPECT_LT(n, 1004U);
}

// --- Handshake faults --------------------------------------------------------------------
// The client suites would pass a stall or a close that turned into a refusal.

TEST(HandshakeFaults, AStalledUpgradeHangsAndAClosedOneIsAcceptedFirst) {
  PhoenixTestServer server;
  server.stallHandshakes(true);
  Client stalled;
  EXPECT_EQ(stalled.connect(server.port(), 200ms), beast::error::timeout);
  EXPECT_EQ(server.webSocket().handshakeTargets().size(), 1U);

  server.acceptHandshakes();
  server.closeAfterUpgrade(4001);
  Client closed;
  ASSERT_FALSE(closed.connect(server.port()));
  EXPECT_EQ(closed.readError(), websocket::error::closed);
  EXPECT_EQ(closed.closeCode(), 4001);
}

// --- Replies the client tests count on ---------------------------------------------------

TEST(ServerReplies, PresenceOrderAndASecondJoin) {
  PhoenixTestServer server;
  Client client;
  ASSERT_FALSE(client.connect(server.port()));
  ASSERT_FALSE(client.write(
      frame(json::value("1"), json::value("1"), "room:a", "phx_join", {{"user_id", "al"}})));
  EXPECT_EQ(client.readFrame()[3], "phx_reply");
  auto diff = client.readFrame();
  EXPECT_EQ(diff[0], nullptr);
  EXPECT_EQ(diff[3], "presence_diff") << "the own diff comes before the state";
  EXPECT_EQ(client.readFrame()[3], "presence_state");

  ASSERT_FALSE(client.write(frame(json::value("3"), json::value("3"), "room:a", "phx_join")));
  EXPECT_EQ(client.readFrame(), json::parse(R"(["3","3","room:a","phx_reply",)"
                                            R"({"status":"ok","response":{}}])"));
  EXPECT_EQ(client.readFrame(), json::parse(R"(["1","1","room:a","phx_close",{}])"));
}

}  // namespace
}  // namespace vantor::testing
