#include "vantor/realtime/Message.hpp"
// The header under test comes first, to show it stands alone.

#include <gtest/gtest.h>

#include <boost/json/parse.hpp>
#include <cmath>

#include "vantor/realtime/ChannelEvent.hpp"
#include "vantor/realtime/Defaults.hpp"

namespace vantor::realtime {
namespace {

namespace json = boost::json;

std::optional<Message> messageOf(std::string_view text) {
  return Message::fromJson(json::parse(text).as_array());
}

TEST(Message, ReadsReferencesOnlyWhenTheyAreStringsAndRejectsWrongElementTypes) {
  for (auto text : {R"([null, null, "t", "e", {}])", R"([1, 2, "t", "e", {}])"}) {
    auto message = messageOf(text);
    ASSERT_TRUE(message) << text;
    EXPECT_FALSE(message->joinRef()) << text;
    EXPECT_EQ(message->ref(), "") << text;
    EXPECT_EQ(message->topic(), "t");
    EXPECT_EQ(message->event(), "e");
  }
  auto strings = messageOf(R"(["1", "2", "t", "e", {"a": 1}, "ignored"])");
  ASSERT_TRUE(strings);
  EXPECT_EQ(strings->joinRef(), "1");
  EXPECT_EQ(strings->ref(), "2");
  EXPECT_EQ(strings->rawPayload().at("a"), 1);

  for (auto text : {R"([null, null, "t", "e", []])", R"([null, null, null, "e", {}])",
                    R"([null, null, "t", 5, {}])", R"([1, 2, 3, 4, 5])",
                    // A wrong topic ends construction before the missing positions are read.
                    R"([null, null, 7])"}) {
    EXPECT_FALSE(messageOf(text)) << text;
  }
}

TEST(Message, PayloadAndStatusOfReplies) {
  auto reply = messageOf(R"(["1", "2", "t", "phx_reply", {"status": "ok", "response": {"a": 1}}])");
  ASSERT_TRUE(reply);
  EXPECT_EQ(reply->status(), "ok");
  EXPECT_EQ(json::value(reply->payload()), json::parse(R"({"a": 1})"));
  auto textResponse = messageOf(R"([null, null, "t", "e", {"response": "text"}])");
  EXPECT_EQ(json::value(textResponse->payload()), json::parse(R"({"response": "text"})"));
  EXPECT_FALSE(textResponse->status());
  EXPECT_FALSE(messageOf(R"([null, null, "t", "e", {"status": 5}])")->status());
}

TEST(MessageDeathTest, AFrameOfFewerThanFiveElementsStopsTheProcess) {
  EXPECT_DEATH(messageOf(R"([null, null, "t", "e"])"), "Index out of range");
}

TEST(ChannelEvent, LifecycleEventsAreExactlyTheFiveReservedOnes) {
  for (auto event : {"phx_join", "phx_leave", "phx_reply", "phx_error", "phx_close"}) {
    EXPECT_TRUE(ChannelEvent::isLifecyleEvent(event)) << event;
  }
  for (auto event : {"heartbeat", "PHX_JOIN", "phx_join ", ""}) {
    EXPECT_FALSE(ChannelEvent::isLifecyleEvent(event)) << event;
  }
}

TEST(Defaults, BackOffTables) {
  const double reconnect[] = {0.01, 0.05, 0.1, 0.15, 0.2, 0.25, 0.5, 1.0, 2.0, 5.0, 5.0};
  const double rejoin[] = {1.0, 2.0, 5.0, 10.0, 10.0};
  for (int attempt = 1; attempt <= 11; ++attempt) {
    EXPECT_EQ(Defaults::reconnectSteppedBackOff(attempt), reconnect[attempt - 1]) << attempt;
    if (attempt <= 5) {
      EXPECT_EQ(Defaults::rejoinSteppedBackOff(attempt), rejoin[attempt - 1]) << attempt;
    }
  }
  EXPECT_EQ(Defaults::reconnectSteppedBackOff(std::numeric_limits<std::int64_t>::max()), 5.0);
  EXPECT_EQ(Defaults::rejoinSteppedBackOff(std::numeric_limits<std::int64_t>::max()), 10.0);
}

TEST(DefaultsDeathTest, AttemptNumbersStartAtOne) {
  EXPECT_DEATH(Defaults::reconnectSteppedBackOff(0), "Back-off attempt numbers start at 1");
  EXPECT_DEATH(Defaults::rejoinSteppedBackOff(-1), "Back-off attempt numbers start at 1");
}

TEST(Defaults, EncodesCompactlyInInsertionOrder) {
  json::array frame{nullptr, "5", "phoenix", "heartbeat", json::object{}};
  EXPECT_EQ(Defaults::encode(frame), R"([null,"5","phoenix","heartbeat",{}])");
  json::object payload;
  payload["z"] = 1;
  payload["a"] = json::array{true, nullptr, 1.5, "é"};
  EXPECT_EQ(Defaults::encode(payload), R"({"z":1,"a":[true,null,1.5E0,"é"]})");
}

TEST(DefaultsDeathTest, EncodingWhatIsNotJsonStopsTheProcess) {
  EXPECT_DEATH(Defaults::encode(json::array{std::nan("")}), "Invalid number in JSON write");
  EXPECT_DEATH(Defaults::encode(json::array{HUGE_VAL}), "Invalid number in JSON write");
  EXPECT_DEATH(Defaults::encode(json::object{{"k", "\xff"}}), "Invalid UTF-8 string in JSON write");
  EXPECT_DEATH(Defaults::encode(json::object{{"\xc0\x80", 1}}), "Invalid UTF-8 key in JSON write");
}

TEST(Defaults, DecodesOnlyArraysAndObjects) {
  EXPECT_TRUE(Defaults::decode(R"([1, 2])"));
  EXPECT_TRUE(Defaults::decode(R"({"a": 1})"));
  for (auto text : {"5", R"("text")", "not json", "[1, 2", "", "[\"\xff\"]"}) {
    EXPECT_FALSE(Defaults::decode(text)) << text;
  }

  // Deeply nested payloads are data too, up to the documented limit.
  auto nested = [](std::size_t depth) {
    return std::string(depth, '[') + std::string(depth, ']');
  };
  EXPECT_TRUE(Defaults::decode(nested(Defaults::maxNestingDepth)));
  EXPECT_FALSE(Defaults::decode(nested(Defaults::maxNestingDepth + 1)));
  const std::string deepFrame = R"([null, null, "t", "e", {"a": )" + nested(600) + "}]";
  auto decoded = Defaults::decode(deepFrame);
  ASSERT_TRUE(decoded);
  auto message = Message::fromJson(decoded->as_array());
  ASSERT_TRUE(message);
  EXPECT_EQ(Defaults::encode(message->rawPayload()), R"({"a":)" + nested(600) + "}");
}

}  // namespace
}  // namespace vantor::realtime
