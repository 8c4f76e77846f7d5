// What the client does when the application's callbacks misbehave: throw,
// or replace themselves while they run.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <boost/json/parse.hpp>
#include <stdexcept>

#include "support/FakeTransport.hpp"
#include "vantor/realtime/Channel.hpp"
#include "vantor/realtime/Presence.hpp"
#include "vantor/realtime/Push.hpp"
#include "vantor/realtime/Socket.hpp"

namespace vantor::realtime {
namespace {

using testing::FakeTransport;
using ::testing::ElementsAre;
namespace json = boost::json;

using testing::frame;

class Callbacks : public testing::SocketOnFakeTransports {
 protected:
  void SetUp() override {
    SocketOnFakeTransports::SetUp();
    socket->setSkipHeartbeat(true);
    transport = open();
    channel = socket->channel("room:1");
    channel->join();
  }

  void replyOk(const std::optional<std::string>& ref) {
    transport->receive(frame(channel->joinRef(), ref, "room:1", "phx_reply",
                             {{"status", "ok"}, {"response", json::object{}}}));
  }

  void broadcast(const std::string& event, const json::object& payload = {}) {
    transport->receive(frame(std::nullopt, std::nullopt, "room:1", event, payload));
  }

  std::shared_ptr<FakeTransport> transport;
  std::shared_ptr<Channel> channel;
};

TEST_F(Callbacks, OneThatThrowsIsLoggedAndEveryOtherCallbackAndFrameStillRuns) {
  replyOk(channel->joinRef());
  std::vector<std::string> seen;
  socket->onMessage([](const Message&) { throw std::runtime_error("socket boom"); });
  socket->onMessage([&](const Message& message) { seen.push_back("socket:" + message.event()); });
  channel->on("news", [](const Message&) { throw std::runtime_error("binding boom"); });
  channel->on("news", [&](const Message&) { seen.push_back("binding"); });
  channel->onMessage([](const Message&) -> Message { throw 42; });

  broadcast("news");
  broadcast("news");
  EXPECT_THAT(seen, ElementsAre("binding", "socket:news", "binding", "socket:news"));
  EXPECT_EQ(log.count("VantorPhoenixClient: error, message callback threw: socket boom"), 2U);
  EXPECT_EQ(log.count("VantorPhoenixClient: error, channel binding threw: binding boom"), 2U);
  EXPECT_TRUE(
      log.contains("VantorPhoenixClient: error, channel message hook threw: an unknown exception"));

  // Push hooks: the failing one does not keep the other from its reply.
  auto push = channel->push("ask", {});
  push->receive("ok", [](const Message&) { throw std::runtime_error("hook boom"); })
      ->receive("ok", [&](const Message&) { seen.push_back("hook"); });
  replyOk(push->ref());
  EXPECT_EQ(seen.back(), "socket:phx_reply");
  EXPECT_EQ(std::count(seen.begin(), seen.end(), "hook"), 1);
  EXPECT_TRUE(log.contains("VantorPhoenixClient: error, push hook threw: hook boom"));

  // Presence callbacks: the state is still merged, and onSync still runs.
  auto presence = Presence::make(channel);
  int syncs = 0;
  presence->onJoin([](const std::string&, const auto&, const auto&) { throw std::runtime_error("join"); });
  presence->onSync([&] { ++syncs; });
  broadcast("presence_state", {{"u1", {{"metas", json::array{{{"phx_ref", "1"}}}}}}});
  EXPECT_EQ(presence->state().size(), 1U);
  EXPECT_EQ(syncs, 1);
  EXPECT_TRUE(log.contains("VantorPhoenixClient: error, presence onJoin threw: join"));
  EXPECT_TRUE(socket->isConnected());
}

TEST_F(Callbacks, AThrowingEncoderDecoderOrLoggerCostsOnlyTheirOwnWork) {
  replyOk(channel->joinRef());
  socket->setEncoder([](const json::value& value) -> std::string {
    if (value.as_array()[3].as_string() == "bad") {
      throw std::runtime_error("cannot encode");
    }
    return Defaults::encode(value);
  });
  const auto sentBefore = transport->sent().size();
  channel->push("bad", {});
  channel->push("good", {});
  ASSERT_EQ(transport->sent().size(), sentBefore + 1);
  EXPECT_NE(transport->sent().back().find("good"), std::string::npos);
  EXPECT_TRUE(log.contains("VantorPhoenixClient: error, encoder threw: cannot encode"));

  int decoded = 0;
  socket->setDecoder([&](std::string_view text) -> std::optional<json::value> {
    if (++decoded == 1) {
      throw std::runtime_error("cannot decode");
    }
    return Defaults::decode(text);
  });
  int news = 0;
  channel->on("news", [&](const Message&) { ++news; });
  broadcast("news");  // dropped as unparsable
  broadcast("news");
  EXPECT_EQ(news, 1);
  EXPECT_TRUE(log.contains("VantorPhoenixClient: error, decoder threw: cannot decode"));

  socket->setLogger([](const std::string&) { throw std::runtime_error("disk full"); });
  broadcast("news");
  EXPECT_EQ(news, 2);
}

TEST_F(Callbacks, OneThatReplacesItselfWhileRunningKeepsRunningAndTheNewOneTakesOver) {
  // Each replaced callback is destroyed while it runs unless the client holds
  // it for the call; AddressSanitizer reports the use after free.
  replyOk(channel->joinRef());
  std::vector<std::string> seen;
  std::string capturedText = "first logger";
  bool secondLoggerRan = false;
  socket->setLogger([&, capturedText](const std::string&) {
    socket->setLogger([&](const std::string&) { secondLoggerRan = true; });
    seen.push_back(capturedText);
  });
  channel->onMessage([&, capturedText](const Message& message) {
    channel->onMessage([&](const Message& later) {
      seen.push_back("second hook");
      return later;
    });
    seen.push_back(capturedText + " hook");
    return message;
  });
  auto presence = Presence::make(channel);
  presence->onJoin([&, capturedText](const std::string& key, const auto&, const auto&) {
    presence->onJoin([&](const std::string& later, const auto&, const auto&) {
      seen.push_back("second join " + later);
    });
    seen.push_back(capturedText + " join " + key);
  });
  broadcast("presence_state", {{"u1", {{"metas", json::array{{{"phx_ref", "1"}}}}}},
                               {"u2", {{"metas", json::array{{{"phx_ref", "2"}}}}}}});
  broadcast("presence_diff", {{"joins", {{"u3", {{"metas", json::array{{{"phx_ref", "3"}}}}}}}},
                              {"leaves", json::object{}}});
  // Within one event the callbacks it started with keep running.
  EXPECT_THAT(seen, ElementsAre("first logger", "first logger hook", "first logger join u1",
                                "first logger join u2", "second hook", "second join u3"));
  EXPECT_TRUE(secondLoggerRan);
}

using ChannelReplies = Callbacks;

TEST_F(ChannelReplies, ABufferedPushForgetsTheReferenceItHadWhileTheChannelWasJoining) {
  auto push = channel->push("ask", {});
  const auto bufferedRef = push->ref();
  int outcomes = 0;
  push->receive("ok", [&](const Message&) { ++outcomes; })
      ->receive("timeout", [&](const Message&) { ++outcomes; });
  replyOk(channel->joinRef());
  ASSERT_EQ(json::parse(transport->sent().back()).as_array()[1], json::value(push->ref().value_or("-")))
      << "sent after the join";
  ASSERT_NE(push->ref(), bufferedRef);
  replyOk(push->ref());
  // A reply under the reference it held while buffered is somebody else's.
  replyOk(bufferedRef);
  EXPECT_EQ(outcomes, 1);
}

}  // namespace
}  // namespace vantor::realtime
