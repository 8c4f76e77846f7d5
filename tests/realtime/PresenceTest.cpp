#include "vantor/realtime/Presence.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <boost/json/parse.hpp>
#include <boost/json/serialize.hpp>

#include "support/FakeTransport.hpp"
#include "vantor/realtime/Channel.hpp"
#include "vantor/realtime/Socket.hpp"

namespace vantor::realtime {
namespace {

namespace json = boost::json;
using ::testing::ElementsAre;

Presence::State stateOf(std::string_view text) {
  auto state = Presence::stateFrom(json::parse(text).as_object());
  EXPECT_TRUE(state) << text;
  return state.value_or(Presence::State{});
}

Presence::Diff diffOf(std::string_view text) {
  auto diff = Presence::diffFrom(json::parse(text).as_object());
  EXPECT_TRUE(diff) << text;
  return diff.value_or(Presence::Diff{});
}

std::vector<std::string> refsOf(const Presence::Map& presence) {
  std::vector<std::string> refs;
  for (const auto& meta : presence.at("metas")) {
    refs.emplace_back(meta.at("phx_ref").as_string());
  }
  return refs;
}

// Writes down every callback as text: "join key [current refs] [new refs]".
struct Calls {
  std::vector<std::string> log;

  Presence::OnJoin onJoin() {
    return [this](const std::string& key, const std::optional<Presence::Map>& current,
                  const Presence::Map& joined) {
      log.push_back("join " + key + " " + (current ? join(refsOf(*current)) : "-") + " " +
                    join(refsOf(joined)));
    };
  }
  Presence::OnLeave onLeave() {
    return [this](const std::string& key, const Presence::Map& current, const Presence::Map& left) {
      log.push_back("leave " + key + " " + join(refsOf(current)) + " " + join(refsOf(left)));
    };
  }
  static std::string join(const std::vector<std::string>& refs) {
    std::string text = "[";
    for (const auto& ref : refs) {
      text += (text.size() > 1 ? "," : "") + ref;
    }
    return text + "]";
  }
};

TEST(PresenceSync, AFirstSnapshotJoinsEveryKeyAndAnIdenticalOneChangesNothing) {
  Calls calls;
  const auto snapshot = stateOf(R"({"u1": {"metas": [{"phx_ref": "1"}]}})");
  auto state = Presence::syncState({}, snapshot, calls.onJoin(), calls.onLeave());
  EXPECT_EQ(state, snapshot);
  state = Presence::syncState(state, snapshot, calls.onJoin(), calls.onLeave());
  EXPECT_EQ(state, snapshot);
  EXPECT_THAT(calls.log, ElementsAre("join u1 - [1]"));
}

TEST(PresenceSync, ASnapshotWithOverlappingRefsJoinsTheNewAndLeavesTheOld) {
  Calls calls;
  auto state = stateOf(R"({"u1": {"metas": [{"phx_ref": "1"}, {"phx_ref": "2"}]},
                           "u2": {"metas": [{"phx_ref": "9"}]}})");
  state = Presence::syncState(
      state, stateOf(R"({"u1": {"metas": [{"phx_ref": "2"}, {"phx_ref": "3"}]}})"),
      calls.onJoin(), calls.onLeave());
  // Joins come first; the leave sees the merged list without the old ref.
  EXPECT_THAT(calls.log,
              ElementsAre("join u1 [1,2] [3]", "leave u1 [2,3] [1]", "leave u2 [] [9]"));
  EXPECT_THAT(refsOf(state.at("u1")), ElementsAre("2", "3"));
  EXPECT_FALSE(state.contains("u2"));
}

TEST(PresenceSync, ADiffKeepsOldOccurrencesFirstAndLeavesOnlyWhatItNames) {
  Calls calls;
  auto state = stateOf(R"({"u1": {"metas": [{"phx_ref": "1", "device": "phone"}]}})");
  state = Presence::syncDiff(
      state, diffOf(R"({"joins": {"u1": {"metas": [{"phx_ref": "2", "device": "laptop"}]}},
                        "leaves": {"ghost": {"metas": [{"phx_ref": "7"}]}}})"),
      calls.onJoin(), calls.onLeave());
  EXPECT_THAT(refsOf(state.at("u1")), ElementsAre("1", "2"));
  EXPECT_EQ(state.at("u1").at("metas")[0].at("device"), "phone");

  state = Presence::syncDiff(state, diffOf(R"({"leaves": {"u1": {"metas": [{"phx_ref": "1"}]}}})"),
                             calls.onJoin(), calls.onLeave());
  EXPECT_THAT(refsOf(state.at("u1")), ElementsAre("2"));
  EXPECT_THAT(calls.log, ElementsAre("join u1 [1] [2]", "leave u1 [2] [1]"))
      << "a leave of an absent key calls nothing";
}

TEST(PresenceSync, JoiningAndLeavingTheSameOccurrenceInOneDiffEndsWithItGone) {
  Calls calls;
  auto state = Presence::syncDiff(
      {}, diffOf(R"({"joins": {"u1": {"metas": [{"phx_ref": "5"}]}},
                     "leaves": {"u1": {"metas": [{"phx_ref": "5"}]}}})"),
      calls.onJoin(), calls.onLeave());
  EXPECT_TRUE(state.empty());
  EXPECT_THAT(calls.log, ElementsAre("join u1 - [5]", "leave u1 [] [5]"));
}

TEST(PresenceSync, ListAndFilter) {
  const auto state = stateOf(R"({"a": {"metas": [{"phx_ref": "1"}]},
                                 "b": {"metas": [{"phx_ref": "2"}, {"phx_ref": "3"}]}})");
  auto counts = Presence::listBy(state, [](const std::string& key, const Presence::Map& presence) {
    return key + ":" + std::to_string(presence.at("metas").size());
  });
  EXPECT_THAT(counts, ElementsAre("a:1", "b:2"));
  EXPECT_EQ(Presence::filter(state, nullptr), state);
  auto many = Presence::filter(state, [](const std::string&, const Presence::Map& presence) {
    return presence.at("metas").size() > 1;
  });
  EXPECT_EQ(many, stateOf(R"({"b": {"metas": [{"phx_ref": "2"}, {"phx_ref": "3"}]}})"));
}

TEST(PresenceSyncDeathTest, MissingMetasOrRefsStopTheProcess) {
  auto noop = [](auto&&...) {};
  const auto current = stateOf(R"({"u1": {"metas": [{"phx_ref": "1"}]}})");
  EXPECT_DEATH(Presence::syncState(current, stateOf(R"({"u1": {"other": []}})"), noop, noop),
               "Presence data without \"metas\"");
  EXPECT_DEATH(Presence::syncState(current, stateOf(R"({"u1": {"metas": [{"phx_ref": 2}]}})"),
                                   noop, noop),
               "Presence meta without a string \"phx_ref\"");
}

// Presence on a channel, fed through a fake transport.
class PresenceOnChannel : public ::testing::Test {
 protected:
  void SetUp() override {
    socket = Socket::make("ws://h/socket", transports.factory());
    socket->setSkipHeartbeat(true);
    channel = socket->channel("room:1");
    presence = Presence::make(channel);
    presence->onJoin(calls.onJoin());
    presence->onLeave(calls.onLeave());
    presence->onSync([this] { calls.log.emplace_back("sync"); });
    socket->connect();
    transports.last()->open();
    channel->join();
    joinRef = *channel->joinRef();
    transports.last()->receive(json::serialize(json::array{
        joinRef, joinRef, "room:1", "phx_reply", json::object{{"status", "ok"}, {"response", json::object{}}}}));
  }

  void deliver(const std::string& event, std::string_view payload) {
    transports.last()->receive(json::serialize(
        json::array{nullptr, nullptr, "room:1", event, json::parse(payload)}));
  }

  testing::FakeTransports transports;
  std::shared_ptr<Socket> socket;
  std::shared_ptr<Channel> channel;
  std::shared_ptr<Presence> presence;
  std::string joinRef;
  Calls calls;
};

TEST_F(PresenceOnChannel, APayloadWithAnyPartOfTheWrongShapeIsIgnoredWhole) {
  deliver("presence_state", R"({"u1": {"metas": [{"phx_ref": "1"}], "extra": [{}]}})");
  EXPECT_THAT(calls.log, ElementsAre("join u1 - [1]", "sync"));
  calls.log.clear();
  deliver("presence_state", R"({"u2": {"metas": [{}], "name": "x"}})");
  deliver("presence_state", R"({"u2": {"metas": [1]}})");
  deliver("presence_state", R"({"u2": [], "u3": {"metas": []}})");
  deliver("presence_diff", R"({"joins": {"u3": {"metas": "nope"}}})");
  deliver("presence_diff", R"({"joins": {}, "other": 1})");
  EXPECT_TRUE(calls.log.empty());
  EXPECT_EQ(presence->state().size(), 1U);
}

TEST_F(PresenceOnChannel, AfterARejoinDiffsWaitForTheNewSnapshot) {
  deliver("presence_state", R"({"u1": {"metas": [{"phx_ref": "1"}]}})");
  transports.last()->receive(json::serialize(json::array{joinRef, joinRef, "room:1", "phx_error", json::object{}}));
  channel->rejoin();
  EXPECT_TRUE(presence->isPendingSyncState()) << "a new join reference needs its own snapshot";
  deliver("presence_diff", R"({"joins": {"u2": {"metas": [{"phx_ref": "2"}]}}})");
  EXPECT_EQ(presence->pendingDiffs().size(), 1U);
}

TEST(PresenceLifetime, TheChannelDoesNotKeepItsPresenceAlive) {
  testing::FakeTransports transports;
  auto socket = Socket::make("ws://h/socket", transports.factory());
  auto channel = socket->channel("room:1");
  std::weak_ptr<Presence> weakPresence = Presence::make(channel);
  EXPECT_TRUE(weakPresence.expired());
  channel->trigger("presence_state", {});  // the binding of a released presence does nothing
  auto deaf = Presence::make(channel, Presence::Options{{{Presence::Events::state, "s"}}});
  channel->trigger("s", json::parse(R"({"u": {"metas": []}})").as_object());
  EXPECT_TRUE(deaf->state().empty()) << "options without a diff name listen to nothing";
}

TEST_F(PresenceOnChannel, CallbacksOfADiffSeeTheStateAsItWasBeforeTheDiff) {
  deliver("presence_state", R"({"u1": {"metas": [{"phx_ref": "1"}]}, "u2": {"metas": [{"phx_ref": "2"}]}})");
  std::vector<std::string> seen;
  auto describe = [&](const std::string& key) {
    const auto state = presence->state();
    std::string keys;
    for (const auto& [present, map] : state) {
      keys += present + Calls::join(refsOf(map));
    }
    seen.push_back(key + ": " + keys);
  };
  presence->onJoin([&](const std::string& key, const auto&, const auto&) { describe(key); });
  presence->onLeave([&](const std::string& key, const auto&, const auto&) { describe(key); });
  deliver("presence_diff",
          R"({"joins": {"u1": {"metas": [{"phx_ref": "3"}]}, "u3": {"metas": [{"phx_ref": "4"}]}},
              "leaves": {"u2": {"metas": [{"phx_ref": "2"}]}}})");
  EXPECT_THAT(seen, ElementsAre("u1: u1[1]u2[2]", "u3: u1[1]u2[2]", "u2: u1[1]u2[2]"));
  const auto state = presence->state();
  ASSERT_EQ(state.size(), 2U);
  EXPECT_THAT(refsOf(state.at("u1")), ElementsAre("1", "3"));
  EXPECT_THAT(refsOf(state.at("u3")), ElementsAre("4"));
}

}  // namespace
}  // namespace vantor::realtime
