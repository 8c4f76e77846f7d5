#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <boost/json/serialize.hpp>
#include <stdexcept>

#include "support/PhoenixClient.hpp"
#include "vantor/realtime/Channel.hpp"
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
namespace json = boost::json;

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

TEST_F(ChannelAgainstServer, PushesMadeWhileJoiningOrErroredGoOutOnceAfterTheJoin) {
  socket->setRejoinAfter([](int) { return 0.1; });  // a wide errored window
  auto channel = socket->channel("room:1");
  channel->join();
  channel->push("echo", {{"n", 1}});
  channel->push("echo", {{"n", 2}});
  ASSERT_TRUE(waitForState(channel, ChannelState::joined));
  ASSERT_TRUE(server.waitForFrames("room:1", "echo", 2, 10s));

  server.crashChannel("room:1");
  ASSERT_TRUE(waitForState(channel, ChannelState::errored));
  channel->push("echo", {{"n", 3}});
  ASSERT_TRUE(waitForState(channel, ChannelState::joined));
  ASSERT_TRUE(server.waitForFrames("room:1", "echo", 3, 10s));
  std::this_thread::sleep_for(30ms);
  EXPECT_THAT(eventsOn("room:1"), ElementsAre("phx_join", "echo", "echo", "phx_join", "echo"));
  auto pushes = server.receivedFrames("room:1", "echo");
  EXPECT_EQ(pushes[0].payload.at("n"), 1);
  EXPECT_EQ(pushes[1].payload.at("n"), 2);
  EXPECT_EQ(pushes[2].payload.at("n"), 3);
  EXPECT_EQ(pushes[2].joinRef, server.receivedFrames("room:1", "phx_join")[1].ref)
      << "sent under the new join";
}

TEST_F(ChannelAgainstServer, EachReplyReachesOnlyItsPushAndALateOneReachesNobody) {
  auto channel = socket->channel("room:1");
  channel->join();
  ASSERT_TRUE(waitForState(channel, ChannelState::joined));

  std::mutex mutex;
  std::vector<std::string> seen;
  auto note = [&](std::string what) {
    std::lock_guard lock(mutex);
    seen.push_back(std::move(what));
  };
  auto slow = channel->push("delayed", {{"delay_ms", 200}}, 0.02);
  slow->receive("ok", [&](const Message&) { note("slow:ok"); })
      ->receive("timeout", [&](const Message&) { note("slow:timeout"); });
  for (int n = 1; n <= 3; ++n) {
    channel->push("echo", {{"n", n}})->receive("ok", [&, n](const Message& reply) {
      note("echo" + std::to_string(n) + ":" + json::serialize(reply.payload().at("n")));
    });
  }
  channel->push("fail", {{"why", "no"}})->receive("error", [&](const Message& reply) {
    note("fail:" + std::string(reply.payload().at("why").as_string()));
  });
  ASSERT_TRUE(eventually([&] {
    std::lock_guard lock(mutex);
    return seen.size() == 5;
  }));
  std::this_thread::sleep_for(300ms);  // the slow reply arrives and reaches nobody
  {
    std::lock_guard lock(mutex);
    EXPECT_THAT(seen, ::testing::UnorderedElementsAre("slow:timeout", "echo1:1", "echo2:2",
                                                      "echo3:3", "fail:no"));
  }
  auto firstRef = slow->ref();
  slow->resend(5.0);
  EXPECT_NE(slow->ref(), firstRef);
  ASSERT_TRUE(eventually([&] {
    std::lock_guard lock(mutex);
    return seen.size() == 6;
  }));
  EXPECT_EQ(seen.back(), "slow:ok");
}

TEST_F(ChannelAgainstServer, AServerErrorIsFollowedByARejoinAndPushesFlowAgain) {
  socket->setRejoinAfter([](int) { return 0.05; });
  auto channel = socket->channel("room:1");
  std::atomic<int> errors{0};
  channel->onError([&](const Message&) { ++errors; });
  channel->join();
  ASSERT_TRUE(waitForState(channel, ChannelState::joined));
  server.crashChannel("room:1");
  ASSERT_TRUE(waitForState(channel, ChannelState::errored));
  EXPECT_EQ(errors, 1);
  ASSERT_TRUE(waitForState(channel, ChannelState::joined));
  std::atomic<bool> replied{false};
  channel->push("echo", {})->receive("ok", [&](const Message&) { replied = true; });
  ASSERT_TRUE(eventually([&] { return replied.load(); }));
}

TEST_F(ChannelAgainstServer, ADroppedConnectionErrorsEveryChannelAndAllRejoinWithNewRefs) {
  std::vector<std::shared_ptr<Channel>> channels;
  std::atomic<int> errors{0};
  for (const auto* topic : {"room:a", "room:b", "room:c"}) {
    auto channel = socket->channel(topic);
    channel->onError([&](const Message&) { ++errors; });
    channel->join();
    channels.push_back(channel);
  }
  for (const auto& channel : channels) {
    ASSERT_TRUE(waitForState(channel, ChannelState::joined));
  }
  std::vector<std::optional<std::string>> oldRefs;
  for (const auto& channel : channels) {
    oldRefs.push_back(channel->joinRef());
  }
  server.dropConnections();
  ASSERT_TRUE(server.waitForConnections(2, 10s));
  EXPECT_TRUE(eventually([&] { return errors == 3; }));
  for (std::size_t i = 0; i < channels.size(); ++i) {
    ASSERT_TRUE(waitForState(channels[i], ChannelState::joined));
    EXPECT_NE(channels[i]->joinRef(), oldRefs[i]);
  }
  EXPECT_EQ(server.memberCount("room:a"), 1U);
}

TEST_F(ChannelAgainstServer, OutdatedLifecycleMessagesAreDroppedAndApplicationEventsAccepted) {
  auto channel = socket->channel("room:1");
  std::atomic<int> closes{0};
  std::atomic<int> news{0};
  channel->onClose([&](const Message&) { ++closes; });
  channel->on("news", [&](const Message&) { ++news; });
  channel->join();
  ASSERT_TRUE(waitForState(channel, ChannelState::joined));
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
}

TEST_F(ChannelAgainstServer, AServerCloseClosesAndUnregistersTheChannel) {
  auto channel = socket->channel("room:1");
  std::atomic<int> closes{0};
  channel->onClose([&](const Message&) { ++closes; });
  channel->join();
  ASSERT_TRUE(waitForState(channel, ChannelState::joined));
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
  std::mutex mutex;
  std::vector<std::string> reasons;
  channel->join()->receive("error", [&](const Message& reply) {
    std::lock_guard lock(mutex);
    reasons.emplace_back(reply.payload().at("reason").as_string());
  });
  ASSERT_TRUE(eventually([&] {
    std::lock_guard lock(mutex);
    return reasons.size() >= 2;
  }));
  EXPECT_EQ(reasons[0], "no entry");
  server.allowTopic("room:secret");
  ASSERT_TRUE(waitForState(channel, ChannelState::joined));
}

TEST_F(ChannelAgainstServer, LeaveWhileDisconnectedClosesAtOnceAndNeverRejoins) {
  auto channel = socket->channel("room:1");
  std::mutex mutex;
  std::vector<std::string> reasons;
  channel->onClose([&](const Message& message) {
    std::lock_guard lock(mutex);
    reasons.emplace_back(message.payload().at("reason").as_string());
  });
  channel->join();
  ASSERT_TRUE(waitForState(channel, ChannelState::joined));
  server.dropConnections();
  ASSERT_TRUE(waitForState(channel, ChannelState::errored));
  socket->disconnect();
  channel->leave();
  EXPECT_EQ(channel->state(), ChannelState::closed);
  EXPECT_TRUE(socket->channels().empty());
  {
    std::lock_guard lock(mutex);
    EXPECT_THAT(reasons, ElementsAre("leave"));
  }
  socket->connect();
  ASSERT_TRUE(waitUntilConnected(socket));
  std::this_thread::sleep_for(50ms);
  EXPECT_EQ(server.countReceived("room:1", "phx_join"), 1U) << "a left channel never rejoins";
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

TEST_F(ChannelAgainstServer, DisconnectThenConnectRejoinsAndAPushMadeBetweenIsAnsweredOnce) {
  std::vector<std::shared_ptr<Channel>> channels;
  for (const auto* topic : {"room:a", "room:b"}) {
    channels.push_back(socket->channel(topic));
    channels.back()->join();
  }
  for (const auto& channel : channels) {
    ASSERT_TRUE(waitForState(channel, ChannelState::joined));
  }
  const auto oldRef = channels[0]->joinRef();
  socket->disconnect();
  EXPECT_FALSE(channels[0]->isJoined());
  std::atomic<int> replies{0};
  std::atomic<int> failures{0};
  channels[0]->push("echo", {{"n", 1}})
      ->receive("ok", [&](const Message&) { ++replies; })
      ->receive("error", [&](const Message&) { ++failures; })
      ->receive("timeout", [&](const Message&) { ++failures; });

  socket->connect();
  for (const auto& channel : channels) {
    ASSERT_TRUE(waitForState(channel, ChannelState::joined));
  }
  EXPECT_NE(channels[0]->joinRef(), oldRef);
  ASSERT_TRUE(eventually([&] { return replies == 1; }));
  std::this_thread::sleep_for(50ms);
  EXPECT_EQ(replies, 1);
  EXPECT_EQ(failures, 0) << "no \"unmatched topic\" and no time-out";
  EXPECT_EQ(server.countReceived("room:a", "echo"), 1U);
  EXPECT_EQ(server.memberCount("room:a"), 1U);
}

TEST_F(ChannelAgainstServer, ABindingThatAlwaysThrowsDoesNotStopTheConnection) {
  auto channel = socket->channel("room:1");
  std::atomic<int> before{0};
  std::atomic<int> after{0};
  std::atomic<int> onSocket{0};
  channel->on("news", [&](const Message&) { ++before; });
  channel->on("news", [](const Message&) { throw std::runtime_error("always"); });
  channel->on("news", [&](const Message&) { ++after; });
  socket->onMessage([&](const Message& message) { onSocket += message.event() == "news" ? 1 : 0; });
  channel->join();
  ASSERT_TRUE(waitForState(channel, ChannelState::joined));
  for (int n = 0; n < 100; ++n) {
    server.broadcast("room:1", "news", {{"n", n}});
  }
  ASSERT_TRUE(eventually([&] { return after == 100 && onSocket == 100; }));
  EXPECT_EQ(before, 100);
  EXPECT_TRUE(socket->isConnected());
  EXPECT_EQ(log.count("VantorPhoenixClient: error, channel binding threw: always"), 100U);
}

struct Owner {};

TEST_F(ChannelAgainstServer, BindingsKeepNoOwnerAliveAndALeftChannelIsFreed) {
  auto channel = socket->channel("room:1");
  auto owner = std::make_shared<Owner>();
  std::weak_ptr<Owner> weakOwner = owner;
  channel->delegateOn<Owner>("news", owner, [](Owner&, const Message&) {});
  channel->join()->delegateReceive<Owner>("ok", owner, [](Owner&, const Message&) {});
  ASSERT_TRUE(waitForState(channel, ChannelState::joined));
  channel->push("noreply", {}, 60.0);
  owner.reset();
  EXPECT_TRUE(weakOwner.expired());
  channel->leave();
  ASSERT_TRUE(waitForState(channel, ChannelState::closed));
  std::weak_ptr<Channel> weakChannel = channel;
  channel.reset();
  EXPECT_TRUE(weakChannel.expired());
}

}  // namespace
}  // namespace vantor::realtime
