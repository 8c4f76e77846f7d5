#include "vantor/realtime/Presence.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <boost/json/parse.hpp>
#include <sstream>

#include "support/FakeTransport.hpp"
#include "vantor/realtime/Channel.hpp"
#include "vantor/realtime/Socket.hpp"

namespace vantor::realtime {
namespace {

namespace json = boost::json;
using ::testing::ElementsAre;

// "u1:1,2 u2:9": u1 is present with the refs 1 and 2, u2 with 9.
json::object entries(std::string_view text) {
  json::object entries;
  std::istringstream words{std::string(text)};
  for (std::string word; words >> word;) {
    const auto colon = word.find(':');
    json::array metas;
    std::istringstream refs(word.substr(colon + 1));
    for (std::string ref; std::getline(refs, ref, ',');) {
      metas.push_back(json::object{{"phx_ref", ref}});
    }
    entries[word.substr(0, colon)] = json::object{{"metas", std::move(metas)}};
  }
  return entries;
}

Presence::State stateOf(std::string_view text) { return *Presence::stateFrom(entries(text)); }

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

TEST(PresenceSync, JoinsComeFirstAndOldOccurrencesStayFirst) {
  struct Case {
    const char* before;
    const char* snapshot;  // null: the change is the diff of `joins` and `leaves`
    const char* joins;
    const char* leaves;
    std::vector<std::string> calls;
    const char* after;
  };
  const std::vector<Case> cases = {
      {"u1:1", "u1:1", "", "", {}, "u1:1"},
      // The leave sees the merged list without the old ref.
      {"u1:1,2 u2:9", "u1:2,3", "", "", {"join u1 [1,2] [3]", "leave u1 [2,3] [1]", "leave u2 [] [9]"},
       "u1:2,3"},
      // A leave of an absent key calls nothing.
      {"u1:1", nullptr, "u1:2", "ghost:7", {"join u1 [1] [2]"}, "u1:1,2"},
      {"u1:1,2", nullptr, "", "u1:1", {"leave u1 [2] [1]"}, "u1:2"},
      {"", nullptr, "u1:5", "u1:5", {"join u1 - [5]", "leave u1 [] [5]"}, ""},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(std::string(c.before) + " + " + (c.snapshot ? c.snapshot : c.joins));
    Calls calls;
    Presence::State after;
    if (c.snapshot) {
      after = Presence::syncState(stateOf(c.before), stateOf(c.snapshot), calls.onJoin(), calls.onLeave());
    } else {
      const json::object diff{{"joins", entries(c.joins)}, {"leaves", entries(c.leaves)}};
      after = Presence::syncDiff(stateOf(c.before), *Presence::diffFrom(diff), calls.onJoin(), calls.onLeave());
    }
    EXPECT_EQ(calls.log, c.calls);
    EXPECT_EQ(after, stateOf(c.after));
  }
}

TEST(PresenceSync, ListAndFilter) {
  const auto state = stateOf("a:1 b:2,3");
  auto counts = Presence::listBy(state, [](const std::string& key, const Presence::Map& presence) {
    return key + ":" + std::to_string(presence.at("metas").size());
  });
  EXPECT_THAT(counts, ElementsAre("a:1", "b:2"));
  EXPECT_EQ(Presence::filter(state, nullptr), state);
  auto many = Presence::filter(state, [](const std::string&, const Presence::Map& presence) {
    return presence.at("metas").size() > 1;
  });
  EXPECT_EQ(many, stateOf("b:2,3"));
}

TEST(PresenceSyncDeathTest, MissingMetasOrRefsStopTheProcess) {
  auto noop = [](auto&&...) {};
  const auto current = stateOf("u1:1");
  auto unchecked = [](std::string_view text) {
    return *Presence::stateFrom(json::parse(text).as_object());
  };
  EXPECT_DEATH(Presence::syncState(current, unchecked(R"({"u1": {"other": []}})"), noop, noop),
               "Presence data without \"metas\"");
  EXPECT_DEATH(Presence::syncState(current, unchecked(R"({"u1": {"metas": [{"phx_ref": 2}]}})"), noop, noop),
               "Presence meta without a string \"phx_ref\"");
}

// Presence on a channel, fed through a fake transport.
class PresenceOnChannel : public testing::SocketOnFakeTransports {
 protected:
  void SetUp() override {
    SocketOnFakeTransports::SetUp();
    socket->setSkipHeartbeat(true);
    channel = socket->channel("room:1");
    presence = Presence::make(channel);
    presence->onJoin(calls.onJoin());
    presence->onLeave(calls.onLeave());
    presence->onSync([this] { calls.log.emplace_back("sync"); });
    open();
    channel->join();
    joinRef = *channel->joinRef();
    transports.last()->receive(testing::frame(joinRef, joinRef, "room:1", "phx_reply",
                                              {{"status", "ok"}, {"response", json::object{}}}));
  }

  void deliver(const std::string& event, std::string_view payload) {
    transports.last()->receive(testing::frame({}, {}, "room:1", event, json::parse(payload).as_object()));
  }

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
  transports.last()->receive(testing::frame(joinRef, joinRef, "room:1", "phx_error", {}));
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
