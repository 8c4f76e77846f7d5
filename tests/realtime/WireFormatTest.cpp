#include "vantor/realtime/Message.hpp"
// The header under test comes first, to show it stands alone.

#include <gtest/gtest.h>

#include <boost/json/parse.hpp>
#include <cmath>

#include "vantor/platform/DispatchQueue.hpp"
#include "vantor/realtime/ChannelEvent.hpp"
#include "vantor/realtime/Defaults.hpp"

namespace vantor::realtime {
namespace {

namespace json = boost::json;

std::optional<Message> messageOf(std::string_view text) {
  return Message::fromJson(json::parse(text).as_array());
}

TEST(Message, ReadsReferencesOnlyWhenTheyAreStrings) {
  auto nulls = messageOf(R"([null, null, "t", "e", {}])");
  ASSERT_TRUE(nulls);
  EXPECT_FALSE(nulls->joinRef());
  EXPECT_EQ(nulls->ref(), "");
  EXPECT_EQ(nulls->topic(), "t");
  EXPECT_EQ(nulls->event(), "e");
  EXPECT_TRUE(nulls->payload().empty());

  auto numbers = messageOf(R"([1, 2, "t", "e", {}])");
  ASSERT_TRUE(numbers);
  EXPECT_FALSE(numbers->joinRef());
  EXPECT_EQ(numbers->ref(), "");

  auto strings = messageOf(R"(["1", "2", "t", "e", {"a": 1}, "ignored"])");
  ASSERT_TRUE(strings);
  EXPECT_EQ(strings->joinRef(), "1");
  EXPECT_EQ(strings->ref(), "2");
  EXPECT_EQ(strings->rawPayload().at("a"), 1);
}

TEST(Message, RejectsFramesWithWrongElementTypes) {
  EXPECT_FALSE(messageOf(R"([null, null, "t", "e", []])"));
  EXPECT_FALSE(messageOf(R"([null, null, null, "e", {}])"));
  EXPECT_FALSE(messageOf(R"([null, null, "t", 5, {}])"));
  EXPECT_FALSE(messageOf(R"([1, 2, 3, 4, 5])"));
  // A wrong topic ends construction before the missing positions are read.
  EXPECT_FALSE(messageOf(R"([null, null, 7])"));
}

TEST(Message, PayloadAndStatusOfReplies) {
  auto reply = messageOf(R"(["1", "2", "t", "phx_reply", {"status": "ok", "response": {"a": 1}}])");
  ASSERT_TRUE(reply);
  EXPECT_EQ(reply->status(), "ok");
  EXPECT_EQ(json::value(reply->payload()), json::parse(R"({"a": 1})"));

  auto textResponse = messageOf(R"([null, null, "t", "e", {"response": "text"}])");
  EXPECT_EQ(json::value(textResponse->payload()), json::parse(R"({"response": "text"})"));
  EXPECT_FALSE(textResponse->status());

  auto numericStatus = messageOf(R"([null, null, "t", "e", {"status": 5}])");
  EXPECT_FALSE(numericStatus->status());
}

TEST(MessageDeathTest, AFrameOfFewerThanFiveElementsStopsTheProcess) {
  EXPECT_DEATH(messageOf(R"([null, null, "t", "e"])"), "Index out of range");
}

TEST(ChannelEvent, LifecycleEventsAreExactlyTheFiveReservedOnes) {
  for (auto event : {"phx_join", "phx_leave", "phx_reply", "phx_error", "phx_close"}) {
    EXPECT_TRUE(ChannelEvent::isLifecyleEvent(event)) << event;
  }
  EXPECT_FALSE(ChannelEvent::isLifecyleEvent("heartbeat"));
  EXPECT_FALSE(ChannelEvent::isLifecyleEvent("PHX_JOIN"));
  EXPECT_FALSE(ChannelEvent::isLifecyleEvent("phx_join "));
  EXPECT_FALSE(ChannelEvent::isLifecyleEvent(""));
}

TEST(Defaults, BackOffTables) {
  const double reconnect[] = {0.01, 0.05, 0.1, 0.15, 0.2, 0.25, 0.5, 1.0, 2.0};
  for (int attempt = 1; attempt <= 9; ++attempt) {
    EXPECT_EQ(Defaults::reconnectSteppedBackOff(attempt), reconnect[attempt - 1]) << attempt;
  }
  EXPECT_EQ(Defaults::reconnectSteppedBackOff(10), 5.0);
  EXPECT_EQ(Defaults::reconnectSteppedBackOff(1000), 5.0);
  EXPECT_EQ(Defaults::rejoinSteppedBackOff(1), 1.0);
  EXPECT_EQ(Defaults::rejoinSteppedBackOff(2), 2.0);
  EXPECT_EQ(Defaults::rejoinSteppedBackOff(3), 5.0);
  EXPECT_EQ(Defaults::rejoinSteppedBackOff(4), 10.0);
  EXPECT_EQ(Defaults::rejoinSteppedBackOff(std::numeric_limits<int>::max()), 10.0);
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
  EXPECT_FALSE(Defaults::decode("5"));
  EXPECT_FALSE(Defaults::decode(R"("text")"));
  EXPECT_FALSE(Defaults::decode("not json"));
  EXPECT_FALSE(Defaults::decode("[1, 2"));
  EXPECT_FALSE(Defaults::decode(""));
  EXPECT_FALSE(Defaults::decode("[\"\xff\"]"));

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

TEST(Defaults, TheHeartbeatQueueIsMadeOnce) {
  auto& queue = Defaults::heartbeatQueue();
  EXPECT_EQ(queue.label(), "com.phoenix.socket.heartbeat");
  EXPECT_EQ(&queue, &Defaults::heartbeatQueue());
}

}  // namespace
}  // namespace vantor::realtime
