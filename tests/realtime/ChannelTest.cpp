#include "vantor/realtime/Channel.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <boost/json/parse.hpp>
#include <limits>

#include "support/Eventually.hpp"
#include "support/FakeTransport.hpp"
#include "vantor/realtime/Push.hpp"
#include "vantor/realtime/Socket.hpp"

namespace vantor::realtime {

struct ChannelTestAccess {
  static void setBindingRef(Channel& channel, std::int64_t value) {
    platform::EventLoop::main().sync([&] { channel.bindingRef_ = value; });
  }
};

namespace {

using testing::eventually;
using testing::FakeTransport;
using testing::FakeTransports;
using ::testing::ElementsAre;
namespace json = boost::json;

class ChannelWithFakeTransport : public testing::SocketOnFakeTransports {
 protected:
  void SetUp() override {
    SocketOnFakeTransports::SetUp();
    socket->setSkipHeartbeat(true);
    socket->setRejoinAfter([](int) { return 0.005; });
    socket->setReconnectAfter([](int) { return 0.005; });
  }

  static std::vector<Message> framesSent(const std::shared_ptr<FakeTransport>& transport) {
    std::vector<Message> frames;
    for (const auto& text : transport->sent()) {
      frames.push_back(*Message::fromJson(json::parse(text).as_array()));
    }
    return frames;
  }

  static Message lastFrame(const std::shared_ptr<FakeTransport>& transport, const std::string& event) {
    auto frames = framesSent(transport);
    for (auto it = frames.rbegin(); it != frames.rend(); ++it) {
      if (it->event() == event) {
        return *it;
      }
    }
    ADD_FAILURE() << "no " << event << " frame was sent";
    return Message("", std::nullopt, "", "", Payload{});
  }

  static void reply(const std::shared_ptr<FakeTransport>& transport, const Message& to,
                    const std::string& status, const json::object& response = {}) {
    transport->receive(testing::frame(to.joinRef(), to.ref(), to.topic(), "phx_reply",
                                      {{"status", status}, {"response", response}}));
  }

  // Answers the last join with "ok".
  void joinOk(const std::shared_ptr<FakeTransport>& transport, const std::shared_ptr<Channel>& channel) {
    reply(transport, lastFrame(transport, "phx_join"), "ok");
    ASSERT_EQ(channel->state(), ChannelState::joined);
  }

  std::shared_ptr<Channel> joined(const std::shared_ptr<FakeTransport>& transport) {
    auto channel = socket->channel("room:1");
    channel->join();
    joinOk(transport, channel);
    return channel;
  }
};

TEST_F(ChannelWithFakeTransport, BindingReferencesGoPastTheThirtyTwoBitRange) {
  // Every push takes a binding reference; a long-running application makes
  // more than 2^31 of them.
  auto transport = open();
  auto channel = joined(transport);
  ChannelTestAccess::setBindingRef(*channel, std::numeric_limits<std::int32_t>::max());
  std::vector<std::string> replies;
  for (int i = 0; i < 3; ++i) {
    channel->push("echo", {})->receive("ok", [&, i](const Message&) { replies.push_back(std::to_string(i)); });
    reply(transport, lastFrame(transport, "echo"), "ok");
  }
  EXPECT_THAT(replies, ElementsAre("0", "1", "2"));
  int news = 0;
  const auto ref = channel->on("news", [&](const Message&) { ++news; });
  EXPECT_GT(ref, std::int64_t{std::numeric_limits<std::int32_t>::max()});
  transport->receive(testing::frame(std::nullopt, std::nullopt, "room:1", "news", {}));
  channel->off("news", ref);
  transport->receive(testing::frame(std::nullopt, std::nullopt, "room:1", "news", {}));
  EXPECT_EQ(news, 1);
}

TEST_F(ChannelWithFakeTransport, RepliesReachOnlyThePushWithTheirReference) {
  auto transport = open();
  auto channel = joined(transport);

  std::vector<std::string> seen;
  auto one = channel->push("one", {});
  one->receive("ok", [&](const Message& reply) {
    seen.push_back("one:" + std::string(reply.payload().at("v").as_string()));
  });
  auto two = channel->push("two", {});
  two->receive("ok", [&](const Message&) { seen.push_back("two:ok"); })
      ->receive("error", [&](const Message&) { seen.push_back("two:error"); });

  reply(transport, lastFrame(transport, "two"), "error");
  reply(transport, lastFrame(transport, "one"), "ok", {{"v", "x"}});
  reply(transport, lastFrame(transport, "one"), "ok", {{"v", "again"}});  // handled once
  EXPECT_THAT(seen, ElementsAre("two:error", "one:x"));

  // A hook added after the reply still sees it, at once.
  one->receive("ok", [&](const Message&) { seen.push_back("late"); });
  EXPECT_THAT(seen, ElementsAre("two:error", "one:x", "late"));

  // A reply without a status is kept but runs no hook.
  auto three = channel->push("three", {});
  three->receive("ok", [&](const Message&) { seen.push_back("three"); });
  auto sent = lastFrame(transport, "three");
  transport->receive(
      testing::frame(sent.joinRef(), sent.ref(), "room:1", "phx_reply", {{"response", json::object{}}}));
  EXPECT_EQ(seen.size(), 3U);
  EXPECT_TRUE(three->receivedMessage());
}

// All waiting pushes share one ordered set of deadlines: whatever order the
// pushes were made in, time-outs fire by deadline (equal ones in the order
// made), a reply withdraws only its own, and a push made from a "timeout"
// hook gets a deadline of its own among the rest.
TEST_F(ChannelWithFakeTransport, TimeOutsFireByDeadlineWhateverTheOrderThePushesWereMadeIn) {
  auto transport = open();
  auto channel = joined(transport);

  testing::Notes timedOut;
  channel->push("a", {}, 0.6)->receive("timeout", timedOut.adder("a"));
  channel->push("b", {}, 0.1)->receive("timeout", [&](const Message&) {
    timedOut.add("b");
    channel->push("f", {}, 0.05)->receive("timeout", timedOut.adder("f"));
  });
  channel->push("c", {}, 0.3)->receive("timeout", timedOut.adder("c"));
  channel->push("d", {}, 0.1)->receive("timeout", timedOut.adder("d"));
  channel->push("e", {}, 0.3)->receive("timeout", timedOut.adder("e"));
  reply(transport, lastFrame(transport, "c"), "ok");
  ASSERT_TRUE(eventually([&] { return timedOut.size() == 5; }));
  EXPECT_THAT(timedOut.all(), ElementsAre("b", "d", "f", "e", "a"));
}

TEST_F(ChannelWithFakeTransport, AJoinTimeOutSendsALeaveAndRetries) {
  auto transport = open();
  auto channel = socket->channel("room:1");
  channel->join(0.01);
  ASSERT_TRUE(eventually([&] {
    auto frames = framesSent(transport);
    return frames.size() >= 3;  // join, leave, join again
  }));
  auto frames = framesSent(transport);
  EXPECT_EQ(frames[0].event(), "phx_join");
  EXPECT_EQ(frames[1].event(), "phx_leave");
  EXPECT_EQ(frames[2].event(), "phx_join");
  EXPECT_NE(frames[2].ref(), frames[0].ref());
  EXPECT_TRUE(log.contains("VantorPhoenixClient: channel, timeout room:1 " + frames[0].ref() +
                           " after 0.01s"));
  socket->disconnect();
}

TEST_F(ChannelWithFakeTransport, AfterDisconnectAndConnectChannelsJoinAgainUnderNewReferences) {
  auto transport = open();
  auto room1 = joined(transport);
  auto joining = socket->channel("room:2");
  int errors = 0;
  room1->onError([&](const Message&) { ++errors; });
  joining->join();  // its reply never comes on this connection
  const auto oldRefs = std::vector{room1->joinRef(), joining->joinRef()};

  socket->disconnect();
  EXPECT_EQ(room1->state(), ChannelState::errored);
  EXPECT_EQ(joining->state(), ChannelState::errored);
  EXPECT_EQ(errors, 0) << "the application asked for this close";
  int outcomes = 0;
  room1->push("while_away", {})
      ->receive("ok", [&](const Message&) { ++outcomes; })
      ->receive("timeout", [&](const Message&) { ++outcomes; });

  transport = open();
  auto frames = framesSent(transport);
  ASSERT_EQ(frames.size(), 2U) << "one join each; the old queued join is not sent";
  for (const std::size_t i : {1U, 0U}) {  // answered out of order
    EXPECT_EQ(frames[i].event(), "phx_join");
    EXPECT_NE(frames[i].ref(), oldRefs[i]);
    reply(transport, frames[i], "ok");
  }
  EXPECT_TRUE(room1->isJoined());
  EXPECT_TRUE(joining->isJoined());
  auto push = lastFrame(transport, "while_away");
  EXPECT_EQ(push.joinRef(), room1->joinRef());
  reply(transport, push, "ok");
  EXPECT_EQ(outcomes, 1);
  EXPECT_EQ(framesSent(transport).size(), 3U) << "the push went out once";
  socket->disconnect();
}

TEST_F(ChannelWithFakeTransport, BindingsAreRemovedByEventOrByTheirReferenceWithinTheEvent) {
  auto channel = socket->channel("room:1");
  std::vector<int> calls;
  const auto first = channel->on("x", [&](const Message&) { calls.push_back(1); });
  channel->on("x", [&](const Message&) { calls.push_back(2); });
  const auto other = channel->on("y", [&](const Message&) { calls.push_back(3); });
  channel->off("x", other);  // the reference belongs to "y": nothing happens
  channel->trigger("x", {});
  channel->trigger("y", {});
  channel->off("x", first);
  channel->trigger("x", {});
  channel->off("x");
  channel->trigger("x", {});
  EXPECT_THAT(calls, ElementsAre(1, 2, 3, 2));

  // A binding may change the list while it runs; the change counts from the
  // next trigger on.
  int later = 0;
  auto self = channel->on("z", [&](const Message&) {
    channel->on("z", [&](const Message&) { ++later; });
  });
  channel->trigger("z", {});
  EXPECT_EQ(later, 0);
  channel->off("z", self);
  channel->trigger("z", {});
  EXPECT_EQ(later, 1);
}

TEST_F(ChannelWithFakeTransport, TheChannelsOwnHandlingRunsBeforeTheApplications) {
  auto transport = open();
  auto channel = socket->channel("room:1");
  std::vector<std::string> seen;
  channel->join()->receive("ok", [&](const Message&) {
    seen.push_back("join ok, " + std::string(channel->isJoined() ? "joined" : "not joined"));
  });
  channel->onError([&](const Message&) {
    seen.push_back("error, " + std::string(channel->isErrored() ? "errored" : "not errored"));
  });
  joinOk(transport, channel);
  channel->trigger("phx_error", {});
  EXPECT_THAT(seen, ElementsAre("join ok, joined", "error, errored"));
  socket->disconnect();
}

TEST(ChannelDeathTest, JoiningTwiceOrPushingBeforeJoiningStopsTheProcess) {
  FakeTransports transports;
  auto socket = Socket::make("ws://h/socket", transports.factory());
  auto channel = socket->channel("room:1");
  EXPECT_DEATH(channel->push("hello", {}),
               "Tried to push hello to room:1 before joining. Use channel.join\\(\\) before "
               "pushing events");
  channel->join();
  EXPECT_DEATH(channel->join(),
               "tried to join multiple times. 'join' can only be called a single time per "
               "channel instance");
}

TEST_F(ChannelWithFakeTransport, ABroadcastReachesTheChannelsOfItsTopicInOrderOfCreation) {
  auto transport = open();
  std::vector<std::string> reached;
  std::vector<std::shared_ptr<Channel>> channels;
  for (const auto* name : {"a", "b", "c", "d"}) {
    auto channel = socket->channel(std::string(name) == "b" ? "room:2" : "room:1");
    channel->on("news", [&reached, name](const Message&) { reached.emplace_back(name); });
    channels.push_back(channel);
  }
  // Join one at a time: each join of a topic leaves the older joined channel
  // of that topic, so only "a" and "b" are joined.
  channels[0]->join();
  joinOk(transport, channels[0]);
  channels[1]->join();
  joinOk(transport, channels[1]);

  auto broadcast = [&](const std::string& topic) {
    transport->receive(testing::frame({}, {}, topic, "news", {}));
  };
  broadcast("room:1");
  broadcast("room:2");
  broadcast("room:3");
  EXPECT_THAT(reached, ElementsAre("a", "c", "d", "b"));

  reached.clear();
  socket->remove(channels[0]);
  broadcast("room:1");
  broadcast("room:2");
  EXPECT_THAT(reached, ElementsAre("c", "d", "b"));
  EXPECT_EQ(socket->channels(), (std::vector{channels[1], channels[2], channels[3]}));
}

}  // namespace
}  // namespace vantor::realtime
