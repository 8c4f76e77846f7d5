#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <mutex>

#include "support/PhoenixClient.hpp"
#include "vantor/realtime/Channel.hpp"
#include "vantor/realtime/Presence.hpp"
#include "vantor/realtime/Push.hpp"
#include "vantor/testing/PhoenixTestServer.hpp"

namespace vantor::realtime {
namespace {

using namespace std::chrono_literals;
using testing::eventually;
using testing::LogRecorder;
using testing::socketFor;
using testing::waitUntilConnected;
using vantor::testing::PhoenixTestServer;
using ::testing::ElementsAre;

bool joined(const std::shared_ptr<Channel>& channel) {
  return eventually([&] { return channel->isJoined(); });
}

TEST(SocketRegistry, LeavingOneChannelKeepsEveryOtherRegisteredAndRejoining) {
  PhoenixTestServer server;
  auto socket = socketFor(server);
  auto a = socket->channel("room:a");
  auto b = socket->channel("room:b");
  std::atomic<int> news{0};
  b->on("news", [&](const Message&) { ++news; });
  a->join();
  b->join();
  socket->connect();
  ASSERT_TRUE(joined(a) && joined(b));
  const auto firstJoinRef = b->joinRef();

  // After a disconnect every channel has dropped its join reference, and a
  // channel that never joined has none: leaving one must leave only it.
  socket->disconnect();
  auto neverJoined = socket->channel("room:c");
  auto waiting = socket->channel("room:d");
  waiting->join();
  a->leave();
  neverJoined->leave();
  EXPECT_THAT(socket->channels(), ElementsAre(b, waiting));

  socket->connect();
  ASSERT_TRUE(joined(b) && joined(waiting));
  EXPECT_NE(b->joinRef(), firstJoinRef);
  std::atomic<bool> answered{false};
  b->push("echo", {{"n", 1}})->receive("ok", [&](const Message&) { answered = true; });
  EXPECT_TRUE(eventually([&] { return answered.load(); }));
  server.broadcast("room:b", "news", {});
  EXPECT_TRUE(eventually([&] { return news == 1; }));
  EXPECT_EQ(server.memberCount("room:a"), 0U);
  socket->disconnect();
}

// What a buggy server or a mangling proxy may send after a join. `dropped`:
// counted as malformed input (it would stop the process by default); the
// others are rejected as any unparsable or wrongly shaped frame is.
struct Input {
  const char* name;
  std::string text;
  bool binary = false;
  bool dropped = false;
};

std::vector<Input> malformedInputs() {
  const std::string lobby = R"([null,null,"room:lobby",)";
  std::string deep(100'000, '[');
  deep.append(100'000, ']');
  return {
      {"empty array", "[]", false, true},
      {"one element", "[null]", false, true},
      {"four elements", lobby + R"("after"])", false, true},
      {"object", R"({"topic":"room:lobby"})"},
      {"not JSON", "not json"},
      {"empty text", ""},
      {"binary frame", std::string("\x00\x01\xff", 3), true},
      {"number as topic", R"([null,null,5,"after",{}])"},
      {"null event", lobby + "null,{}]"},
      {"array as payload", lobby + R"("after",[]])"},
      {"reply without status", R"([null,"7","room:lobby","phx_reply",{"response":{}}])"},
      {"number as status", R"([null,"7","room:lobby","phx_reply",{"status":5,"response":{}}])"},
      {"object as reference", R"([null,{"r":1},"room:lobby","phx_reply",{"status":"ok"}])"},
      {"presence without metas", lobby + R"("presence_state",{"u1":{"other":[]}}])", false, true},
      {"metas not a list", lobby + R"("presence_state",{"u1":{"metas":{}}}])"},
      {"number as phx_ref", lobby + R"("presence_state",{"u1":{"metas":[{"phx_ref":1}]}}])", false, true},
      {"diff joining without metas", lobby + R"("presence_diff",{"joins":{"u1":{}},"leaves":{}}])", false,
       true},
      {"diff parts not objects", lobby + R"("presence_diff",{"joins":[],"leaves":5}])"},
      {"nesting 100,000 deep", deep},
      {"20 MB frame", lobby + R"("big",{"s":")" + std::string(20 << 20, 'x') + "\"}]"},
      {"number too large for a double", lobby + R"("after",{"n":1e400}])"},
      {"lone surrogate escape", lobby + R"("after",{"s":"\ud800"}])"},
  };
}

TEST(MalformedInput, WithTheOptionEveryInputIsDroppedAndTheNextBroadcastArrives) {
  PhoenixTestServer server;
  LogRecorder log;
  auto socket = socketFor(server, &log);
  socket->setDropsMalformedInput(true);
  socket->setCollectsMetrics(true);
  auto channel = socket->channel("room:lobby", {{"user_id", "me"}});
  auto presence = Presence::make(channel);
  std::atomic<std::int64_t> last{-1};
  channel->on("after", [&](const Message& message) {
    if (const auto* n = message.payload().if_contains("n"); n != nullptr && n->is_int64()) {
      last = n->get_int64();
    }
  });
  channel->join();
  socket->connect();
  ASSERT_TRUE(joined(channel));
  ASSERT_TRUE(eventually([&] { return presence->state().size() == 1; }));

  std::uint64_t expectedDrops = 0;
  const auto inputs = malformedInputs();
  for (std::int64_t i = 0; i < static_cast<std::int64_t>(inputs.size()); ++i) {
    const auto& input = inputs[static_cast<std::size_t>(i)];
    SCOPED_TRACE(input.name);
    if (input.binary) {
      server.sendBinary(input.text);
    } else {
      server.sendRaw(input.text);
    }
    expectedDrops += input.dropped ? 1 : 0;
    // Sent again until it arrives: after an input that ends the
    // connection, the broadcast reaches the channel once it has rejoined.
    auto nextSend = std::chrono::steady_clock::now();
    EXPECT_TRUE(eventually([&] {
      if (last == i) {
        return true;
      }
      if (std::chrono::steady_clock::now() >= nextSend) {
        server.broadcast("room:lobby", "after", {{"n", i}});
        nextSend += 100ms;
      }
      return false;
    }));
    EXPECT_EQ(socket->metrics().malformedDropped, expectedDrops);
  }
  EXPECT_TRUE(log.contains("VantorPhoenixClient: receive: Dropped a frame of fewer than five elements: []"));
  EXPECT_TRUE(log.contains(R"(VantorPhoenixClient: receive: Dropped presence data without "metas" or a string "phx_ref": {"u1":{"other":[]}})"));
  // The presence kept the well-formed state it had.
  EXPECT_EQ(presence->state().count("me"), 1U);
  socket->disconnect();
}

// Without the option the inputs that the protocol treats as programming
// errors of the server stop the process.
void receiveAfterJoin(const std::vector<std::string>& frames) {
  PhoenixTestServer server;
  auto socket = socketFor(server);
  auto channel = socket->channel("room:lobby");
  auto presence = Presence::make(channel);
  channel->join();
  socket->connect();
  if (!joined(channel)) {
    return;
  }
  for (const auto& frame : frames) {
    server.sendRaw(frame);
  }
  (void)eventually([] { return false; }, 10s);
}

TEST(MalformedInputDeathTest, WithoutTheOptionShortFramesAndBrokenPresenceStopTheProcess) {
  const std::string lobby = R"([null,null,"room:lobby",)";
  const std::string present = lobby + R"("presence_state",{"u1":{"metas":[{"phx_ref":"a"}]}}])";
  EXPECT_DEATH(receiveAfterJoin({R"([null,null,"room:lobby","after"])"}), "Index out of range");
  EXPECT_DEATH(receiveAfterJoin({present, lobby + R"("presence_state",{"u1":{"other":[]}}])"}),
               "Presence data without \"metas\"");
  EXPECT_DEATH(receiveAfterJoin({present, lobby + R"("presence_diff",{"joins":{"u1":{"metas":[{"phx_ref":2}]}}}])"}),
               "Presence meta without a string \"phx_ref\"");
}

TEST(SettingsDeathTest, IntervalsThatWouldStopTheProcessLaterAreRefusedWhereTheyAreSet) {
  PhoenixTestServer server;
  auto socket = socketFor(server);
  auto channel = socket->channel("room:lobby");
  EXPECT_DEATH(socket->setHeartbeatInterval(0),
               "Socket heartbeatInterval must be a finite number of seconds, above 0 and at most 1e9; got 0.0");
  EXPECT_DEATH(socket->setHeartbeatInterval(-1), "Socket heartbeatInterval .*got -1.0");
  EXPECT_DEATH(socket->setTimeout(std::nan("")), "Socket timeout must be a finite number of seconds, 0 or more .*got nan");
  EXPECT_DEATH(channel->setTimeout(INFINITY), "Channel timeout .*got inf");
  EXPECT_DEATH(channel->join(-0.5), "Channel join timeout .*got -0.5");
  EXPECT_DEATH(channel->leave(1e10), "Channel leave timeout .*got 1e\\+10");
  channel->join();
  EXPECT_DEATH(channel->push("echo", {}, -1), "Channel push timeout .*got -1.0");
  EXPECT_DEATH(channel->joinPush()->resend(std::nan("")), "Push timeout .*got nan");
  // Zero is a valid time-out: the push times out at once.
  socket->setTimeout(0);
  std::atomic<bool> timedOut{false};
  channel->push("echo", {}, 0)->receive("timeout", [&](const Message&) { timedOut = true; });
  EXPECT_TRUE(eventually([&] { return timedOut.load(); }));
}

}  // namespace
}  // namespace vantor::realtime
