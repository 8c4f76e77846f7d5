#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>

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
using testing::Notes;
using testing::socketFor;
using testing::waitUntilConnected;
using vantor::testing::PhoenixTestServer;
using ::testing::ElementsAre;

class ChannelAgainstServer : public ::testing::Test {
 protected:
  void SetUp() override {
    socket = socketFor(server, &log);
    socket->connect();
    ASSERT_TRUE(waitUntilConnected(socket));
  }
  void TearDown() override { socket->disconnect(); }

  std::vector<std::string> eventsOn(std::string_view topic) {
    std::vector<std::string> events;
    for (const auto& frame : server.receivedFrames(topic)) {
      events.push_back(frame.event);
    }
    return events;
  }

  static bool waitForState(const std::shared_ptr<Channel>& channel, ChannelState state) {
    return eventually([&] { return channel->state() == state; });
  }

  PhoenixTestServer server;
  LogRecorder log;
  std::shared_ptr<Socket> socket;
};

TEST_F(ChannelAgainstServer, APushWhileTheServerHasErroredTheChannelGoesOutOnceUnderTheRejoin) {
  socket->setRejoinAfter([](int) { return 0.1; });  // a wide errored window
  auto channel = socket->channel("room:1");
  std::atomic<int> errors{0};
  channel->onError([&](const Message&) { ++errors; });
  channel->join();
  ASSERT_TRUE(waitForState(channel, ChannelState::joined));
  server.crashChannel("room:1");
  ASSERT_TRUE(waitForState(channel, ChannelState::errored));
  EXPECT_EQ(errors, 1);
  channel->push("echo", {});
  ASSERT_TRUE(waitForState(channel, ChannelState::joined));
  ASSERT_TRUE(server.waitForFrames("room:1", "echo", 1, 10s));
  std::this_thread::sleep_for(30ms);
  EXPECT_THAT(eventsOn("room:1"), ElementsAre("phx_join", "phx_join", "echo"));
  auto joins = server.receivedFrames("room:1", "phx_join");
  EXPECT_NE(joins[1].ref, joins[0].ref);
  EXPECT_EQ(server.receivedFrames("room:1", "echo")[0].joinRef, joins[1].ref) << "sent under the new join";
}

TEST_F(ChannelAgainstServer, ALateReplyReachesNobodyAndAResendIsAnsweredUnderItsNewReference) {
  auto channel = socket->channel("room:1");
  channel->join();
  ASSERT_TRUE(waitForState(channel, ChannelState::joined));
  Notes seen;
  auto slow = channel->push("delayed", {{"delay_ms", 200}}, 0.02);
  slow->receive("ok", seen.adder("ok"))->receive("timeout", seen.adder("timeout"));
  ASSERT_TRUE(eventually([&] { return seen.size() == 1; }));
  // The server answers delayed pushes in deadline order on one connection:
  // once this later one is answered, the late reply has arrived too.
  std::atomic<bool> later{false};
  channel->push("delayed", {{"delay_ms", 250}})->receive("ok", [&](const Message&) { later = true; });
  ASSERT_TRUE(eventually([&] { return later.load(); }));
  EXPECT_THAT(seen.all(), ElementsAre("timeout"));
  auto firstRef = slow->ref();
  slow->resend(5.0);
  EXPECT_NE(slow->ref(), firstRef);
  ASSERT_TRUE(eventually([&] { return seen.size() == 2; }));
  EXPECT_THAT(seen.all(), ElementsAre("timeout", "ok"));
}

TEST_F(ChannelAgainstServer, OnlyACloseUnderTheCurrentJoinClosesAndUnregistersTheChannel) {
  auto channel = socket->channel("room:1");
  std::atomic<int> closes{0};
  std::atomic<int> news{0};
  channel->onClose([&](const Message&) { ++closes; });
  channel->on("news", [&](const Message&) { ++news; });
  channel->join();
  ASSERT_TRUE(waitForState(channel, ChannelState::joined));
  // Lifecycle messages of an older join are dropped; application events are not.
  const auto stale = "\"old-" + *channel->joinRef() + "\"";
  server.sendRaw("[" + stale + ",null,\"room:1\",\"phx_close\",{}]");
  server.sendRaw("[" + stale + ",null,\"room:1\",\"news\",{}]");
  ASSERT_TRUE(eventually([&] { return news == 1; }));
  EXPECT_EQ(closes, 0);
  EXPECT_EQ(channel->state(), ChannelState::joined);
  EXPECT_TRUE(eventually([&] {
    return log.contains("VantorPhoenixClient: channel, dropping outdated message, room:1, phx_close, {}, old-" +
                        *channel->joinRef());
  }));

  ::testing::internal::CaptureStdout();
  server.closeChannel("room:1");
  ASSERT_TRUE(waitForState(channel, ChannelState::closed));
  EXPECT_EQ(::testing::internal::GetCapturedStdout(), "Close Event Received\n");
  EXPECT_EQ(closes, 1);
  EXPECT_TRUE(socket->channels().empty());
}

TEST_F(ChannelAgainstServer, AForbiddenJoinReportsTheReasonAndKeepsRetrying) {
  server.forbidTopic("room:secret", "no entry");
  socket->setRejoinAfter([](int) { return 0.02; });
  auto channel = socket->channel("room:secret");
  Notes reasons;
  channel->join()->receive("error", [&](const Message& reply) {
    reasons.add(std::string(reply.payload().at("reason").as_string()));
  });
  ASSERT_TRUE(eventually([&] { return reasons.size() >= 2; }));
  EXPECT_EQ(reasons.all()[0], "no entry");
  server.allowTopic("room:secret");
  ASSERT_TRUE(waitForState(channel, ChannelState::joined));
}

TEST_F(ChannelAgainstServer, JoiningATopicTwiceLeavesTheOlderChannel) {
  auto older = socket->channel("room:1");
  older->join();
  ASSERT_TRUE(waitForState(older, ChannelState::joined));
  auto newer = socket->channel("room:1");
  newer->join();
  ASSERT_TRUE(waitForState(newer, ChannelState::joined));
  EXPECT_EQ(older->state(), ChannelState::closed);
  EXPECT_THAT(socket->channels(), ElementsAre(newer));
  EXPECT_TRUE(log.contains("VantorPhoenixClient: transport, leaving duplicate topic: [room:1]"));
  ASSERT_TRUE(server.waitForMembers("room:1", 1, 10s));
}

// One user: a socket, a channel on the lobby and its presence.
struct User {
  std::shared_ptr<Socket> socket;
  std::shared_ptr<Channel> channel;
  std::shared_ptr<Presence> presence;
  std::atomic<int> syncs{0};

  User(PhoenixTestServer& server, const std::string& id) {
    socket = socketFor(server);
    channel = socket->channel("room:lobby", {{"user_id", id}});
    presence = Presence::make(channel);
    presence->onSync([this] { ++syncs; });
    channel->join();
    socket->connect();
  }
  ~User() { socket->disconnect(); }

  std::map<std::string, std::size_t> occurrences() const {
    std::map<std::string, std::size_t> counts;
    for (const auto& [key, entry] : presence->state()) {
      counts[key] = entry.at("metas").size();
    }
    return counts;
  }
};

using Counts = std::map<std::string, std::size_t>;

bool allSee(const std::vector<User*>& users, const Counts& expected) {
  return eventually([&] {
    for (const auto* user : users) {
      if (user->occurrences() != expected) {
        return false;
      }
    }
    return true;
  });
}

TEST(PresenceAgainstServer, ClientsAgreeThroughJoinsLeavesADropAndARejoinWithOneSyncPerSnapshot) {
  PhoenixTestServer server;  // sends a joiner its own diff before the snapshot
  User alice(server, "alice");
  ASSERT_TRUE(allSee({&alice}, Counts{{"alice", 1}}));
  EXPECT_EQ(alice.syncs, 1) << "the held diff is applied with the snapshot, one sync for both";
  EXPECT_TRUE(alice.presence->pendingDiffs().empty());
  User bob(server, "bob");
  ASSERT_TRUE(allSee({&alice, &bob}, Counts{{"alice", 1}, {"bob", 1}}));
  EXPECT_EQ(bob.syncs, 1);
  {
    User carol(server, "carol");
    User secondBob(server, "bob");
    ASSERT_TRUE(allSee({&alice, &bob, &carol, &secondBob},
                       Counts{{"alice", 1}, {"bob", 2}, {"carol", 1}}));
  }
  ASSERT_TRUE(allSee({&alice, &bob}, Counts{{"alice", 1}, {"bob", 1}}));

  // Bob's connection drops: everyone sees him leave, and come back after
  // his socket reconnects and his channel rejoins.
  std::atomic<int> bobLeft{0};
  alice.presence->onLeave([&](const std::string& key, const Presence::Map&, const Presence::Map&) {
    if (key == "bob") {
      ++bobLeft;
    }
  });
  std::optional<PhoenixTestServer::ConnectionId> bobConnection;
  for (const auto& join : server.receivedFrames("room:lobby", "phx_join")) {
    if (join.payload.at("user_id") == "bob") {
      bobConnection = join.connection;
      break;
    }
  }
  ASSERT_TRUE(bobConnection);
  server.dropConnection(*bobConnection);
  ASSERT_TRUE(eventually([&] { return bobLeft >= 1; }));
  // Bob's presence waits for the snapshot of his new join.
  ASSERT_TRUE(eventually([&] {
    return bob.channel->isJoined() && !bob.presence->isPendingSyncState();
  }));
  EXPECT_EQ(bob.presence->joinRef(), bob.channel->joinRef());
  ASSERT_TRUE(allSee({&alice, &bob}, Counts{{"alice", 1}, {"bob", 1}}));
}

}  // namespace
}  // namespace vantor::realtime
