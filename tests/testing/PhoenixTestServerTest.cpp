#include "vantor/testing/PhoenixTestServer.hpp"

#include <gtest/gtest.h>

#include <boost/json.hpp>

#include "BlockingClient.hpp"

namespace vantor::testing {
namespace {

namespace json = boost::json;
using namespace std::chrono_literals;

constexpr auto kWait = 5s;

json::value parse(std::string_view text) { return json::parse(text); }

// Speaks the wire format by hand: frames in, frames out, nothing more.
class PhoenixClient {
 public:
  explicit PhoenixClient(const PhoenixTestServer& server, std::string_view query = "",
                         BlockingClient::Options options = {})
      : ws_(server.url() + "/websocket?vsn=2.0.0" + std::string(query), std::move(options)) {}

  void send(json::value joinRef, json::value ref, std::string_view topic, std::string_view event,
            json::object payload = {}) {
    ws_.sendText(json::serialize(json::array{joinRef, ref, topic, event, payload}));
  }

  json::value next() {
    auto frame = ws_.read();
    EXPECT_EQ(frame.kind, BlockingClient::Frame::Kind::text) << frame.data;
    json::error_code ec;
    auto value = json::parse(frame.data, ec);
    return ec ? json::value(frame.data) : value;
  }

  // Joins with join ref = ref = `joinRef` and returns the reply.
  json::value join(std::string_view topic, std::string_view joinRef, json::object payload = {}) {
    send(json::string(joinRef), json::string(joinRef), topic, "phx_join", std::move(payload));
    return next();
  }

  BlockingClient& ws() { return ws_; }

 private:
  BlockingClient ws_;
};

PhoenixTestServer::Options withoutPresence() {
  PhoenixTestServer::Options options;
  options.presence = false;
  return options;
}

TEST(PhoenixTestServer, RecordsConnectParamsAndAnswersHeartbeatsUntilPaused) {
  PhoenixTestServer server;
  EXPECT_EQ(server.url(), "ws://127.0.0.1:" + std::to_string(server.port()) + "/socket");
  PhoenixClient client(server, "&token=abc%20d&user=7");
  ASSERT_TRUE(server.waitForConnections(1, kWait));
  auto params = server.connectParams();
  ASSERT_EQ(params.size(), 1U);
  EXPECT_EQ(params[0], (std::map<std::string, std::string>{
                           {"vsn", "2.0.0"}, {"token", "abc d"}, {"user", "7"}}));

  client.send(nullptr, "1", "phoenix", "heartbeat");
  EXPECT_EQ(client.next(),
            parse(R"([null,"1","phoenix","phx_reply",{"status":"ok","response":{}}])"));

  server.setHeartbeatReplies(false);
  client.send(nullptr, "2", "phoenix", "heartbeat");
  // The next frame answers the following push: the heartbeat got none.
  client.send(nullptr, "3", "elsewhere", "echo");
  EXPECT_EQ(client.next().as_array()[1], "3");

  server.setHeartbeatReplies(true);
  client.send(nullptr, "4", "phoenix", "heartbeat");
  EXPECT_EQ(client.next().as_array()[1], "4");
  EXPECT_EQ(server.heartbeatsReceived(), 3U);
}

TEST(PhoenixTestServer, RefusesOtherEndpointsAndVersions) {
  PhoenixTestServer server;
  auto base = server.url();
  struct Case {
    std::string url;
    int status;
  };
  for (const auto& [url, status] :
       {Case{base + "/websocket?vsn=1.0.0", 400}, Case{base + "/websocket", 400},
        Case{base + "/other?vsn=2.0.0", 404}, Case{base + "?vsn=2.0.0", 404}}) {
    SCOPED_TRACE(url);
    try {
      BlockingClient client(url);
      ADD_FAILURE() << "accepted";
    } catch (const BlockingClient::HandshakeError& e) {
      EXPECT_EQ(e.httpStatus, status);
    }
  }
  server.refuseHandshake(403);
  EXPECT_THROW(PhoenixClient{server}, BlockingClient::HandshakeError);
  server.refuseHandshake(std::nullopt);
  PhoenixClient accepted(server);
  EXPECT_TRUE(server.waitForConnections(1, kWait));

  PhoenixTestServer::Options atRoot;
  atRoot.endpointPath = "/";
  PhoenixTestServer root(std::move(atRoot));
  EXPECT_EQ(root.url(), "ws://127.0.0.1:" + std::to_string(root.port()) + "/");
  BlockingClient rootClient(root.url() + "websocket?vsn=2.0.0");
  EXPECT_TRUE(root.waitForConnections(1, kWait));
}

TEST(PhoenixTestServer, JoinsRepliesAndRefusals) {
  PhoenixTestServer server(withoutPresence());
  server.forbidTopic("room:secret", "not for you");
  server.ignoreJoins("room:silent");
  PhoenixClient client(server);

  EXPECT_EQ(client.join("room:1", "1"),
            parse(R"(["1","1","room:1","phx_reply",{"status":"ok","response":{}}])"));
  EXPECT_EQ(server.memberCount("room:1"), 1U);
  EXPECT_EQ(client.join("room:secret", "2"), parse(R"(["2","2","room:secret","phx_reply",
                      {"status":"error","response":{"reason":"not for you"}}])"));
  client.send("3", "3", "room:silent", "phx_join");
  EXPECT_EQ(client.join("room:2", "4").as_array()[0], "4");  // room:silent never answered
  EXPECT_EQ(server.memberCount("room:secret"), 0U);
  EXPECT_EQ(server.memberCount("room:silent"), 0U);

  server.allowTopic("room:secret");
  EXPECT_EQ(client.join("room:secret", "5").as_array()[4].as_object().at("status"), "ok");
}

TEST(PhoenixTestServer, AnswersChannelEventsByName) {
  PhoenixTestServer server(withoutPresence());
  PhoenixClient client(server);
  client.join("room:1", "1");

  client.send("1", "2", "room:1", "echo", {{"a", 1}});
  EXPECT_EQ(client.next(),
            parse(R"(["1","2","room:1","phx_reply",{"status":"ok","response":{"a":1}}])"));
  client.send("1", "3", "room:1", "fail", {{"why", "x"}});
  EXPECT_EQ(client.next(),
            parse(R"(["1","3","room:1","phx_reply",{"status":"error","response":{"why":"x"}}])"));
  client.send("1", "4", "room:1", "push_back", {{"b", 2}});
  EXPECT_EQ(client.next(), parse(R"(["1",null,"room:1","pushed",{"b":2}])"));
  client.send("1", "5", "room:1", "something_else", {{"c", 3}});
  EXPECT_EQ(client.next(),
            parse(R"(["1","5","room:1","phx_reply",{"status":"ok","response":{}}])"));

  // "noreply" gets nothing: a reply to it would come before the one to 8,
  // while the delayed reply may come before or after that one.
  client.send("1", "6", "room:1", "delayed", {{"delay_ms", 20}});
  client.send("1", "7", "room:1", "noreply");
  client.send("1", "8", "room:1", "echo");
  std::map<std::string, json::value> replies;
  for (int i = 0; i < 2; ++i) {
    auto reply = client.next();
    replies[std::string(reply.as_array()[1].as_string())] = reply;
  }
  ASSERT_EQ(replies.size(), 2U);
  EXPECT_TRUE(replies.contains("8"));
  EXPECT_EQ(replies["6"],
            parse(R"(["1","6","room:1","phx_reply",{"status":"ok","response":{"delay_ms":20}}])"));

  client.send("9", "10", "room:other", "echo");
  EXPECT_EQ(client.next(), parse(R"(["9","10","room:other","phx_reply",
                                     {"status":"error","response":{"reason":"unmatched topic"}}])"));
  ASSERT_TRUE(server.waitForFrames("room:1", "", 8, kWait));
  EXPECT_EQ(server.countReceived("room:1", "echo"), 2U);
  auto delayed = server.receivedFrames("room:1", "delayed");
  ASSERT_EQ(delayed.size(), 1U);
  EXPECT_EQ(delayed[0].connection, 0U);
  EXPECT_EQ(delayed[0].joinRef, "1");
  EXPECT_EQ(delayed[0].ref, "6");
  EXPECT_EQ(delayed[0].payload, (json::object{{"delay_ms", 20}}));
}

TEST(PhoenixTestServer, BroadcastsReachEveryMemberOfTheTopicOnly) {
  PhoenixTestServer server(withoutPresence());
  PhoenixClient sender(server);
  PhoenixClient member(server);
  PhoenixClient outsider(server);
  sender.join("room:1", "1");
  member.join("room:1", "1");
  outsider.join("room:2", "1");

  sender.send("1", "2", "room:1", "broadcast", {{"text", "hi"}});
  auto expected = parse(R"([null,null,"room:1","broadcast",{"text":"hi"}])");
  EXPECT_EQ(sender.next(), expected);
  EXPECT_EQ(member.next(), expected);

  server.broadcast("room:2", "news", {{"n", 1}});
  EXPECT_EQ(outsider.next(), parse(R"([null,null,"room:2","news",{"n":1}])"));
  server.push("room:1", "direct", {}, 1);
  EXPECT_EQ(member.next(), parse(R"(["1",null,"room:1","direct",{}])"));
}

TEST(PhoenixTestServer, LeavingAndJoiningTwiceCloseChannels) {
  PhoenixTestServer server(withoutPresence());
  PhoenixClient client(server);
  client.join("room:1", "1");
  // The newer join wins; the older channel is closed with its own join ref.
  client.send("3", "3", "room:1", "phx_join");
  EXPECT_EQ(client.next(), parse(R"(["1","1","room:1","phx_close",{}])"));
  EXPECT_EQ(client.next(),
            parse(R"(["3","3","room:1","phx_reply",{"status":"ok","response":{}}])"));
  EXPECT_EQ(server.memberCount("room:1"), 1U);

  client.send("3", "4", "room:1", "phx_leave");
  EXPECT_EQ(client.next(),
            parse(R"(["3","4","room:1","phx_reply",{"status":"ok","response":{}}])"));
  EXPECT_EQ(client.next(), parse(R"(["3","3","room:1","phx_close",{}])"));
  EXPECT_EQ(server.memberCount("room:1"), 0U);
  // Leaving again, with the channel gone, is still answered with ok.
  client.send("3", "5", "room:1", "phx_leave");
  EXPECT_EQ(client.next(),
            parse(R"(["3","5","room:1","phx_reply",{"status":"ok","response":{}}])"));
}

TEST(PhoenixTestServer, ScriptedFaultsAndBadClientInput) {
  PhoenixTestServer server(withoutPresence());
  PhoenixClient first(server);
  PhoenixClient second(server);
  first.join("room:1", "1");
  second.join("room:1", "7");

  server.crashChannel("room:1", 0);
  EXPECT_EQ(first.next(), parse(R"(["1","1","room:1","phx_error",{}])"));
  first.send("1", "2", "room:1", "echo");
  EXPECT_EQ(first.next().as_array()[4].as_object().at("status"), "error");
  server.closeChannel("room:1");
  EXPECT_EQ(second.next(), parse(R"(["7","7","room:1","phx_close",{}])"));
  EXPECT_EQ(server.memberCount("room:1"), 0U);

  server.sendRaw("not json", 1);
  server.sendBinary("bytes", 1);
  EXPECT_EQ(second.next(), json::value("not json"));
  EXPECT_EQ(second.ws().read().kind, BlockingClient::Frame::Kind::binary);

  for (auto bad : {"not json", "[1,2,3,4,5]", "[null,null,\"t\",\"e\"]", "{}"}) {
    first.ws().sendText(bad);
  }
  first.ws().sendBinary("\x01");
  first.send(nullptr, "9", "phoenix", "heartbeat");
  EXPECT_EQ(first.next().as_array()[1], "9");
  EXPECT_EQ(server.invalidFrames(),
            (std::vector<std::string>{"not json", "[1,2,3,4,5]", "[null,null,\"t\",\"e\"]", "{}"}));
  EXPECT_EQ(server.binaryFramesReceived(), 1U);

  server.closeConnection(0, 4000, "bye");
  auto closed = first.ws().read();
  EXPECT_EQ(closed.kind, BlockingClient::Frame::Kind::close);
  EXPECT_EQ(closed.code, 4000);
  server.dropConnections();
  EXPECT_EQ(second.ws().read().kind, BlockingClient::Frame::Kind::error);
  EXPECT_TRUE(server.waitForOpenConnections(0, kWait));
}

// Reads the join reply, presence_state and presence_diff that follow a join,
// in the order the server sent them, and returns their events.
std::vector<std::string> eventsAfterJoin(PhoenixClient& client, std::string_view topic,
                                         std::string_view joinRef, json::object payload) {
  client.send(json::string(joinRef), json::string(joinRef), topic, "phx_join", std::move(payload));
  std::vector<std::string> events;
  for (int i = 0; i < 3; ++i) {
    events.emplace_back(client.next().as_array()[3].as_string());
  }
  return events;
}

TEST(PhoenixTestServer, TracksPresencePerTopic) {
  PhoenixTestServer server;
  PhoenixClient alice(server);
  PhoenixClient bob(server);
  PhoenixClient aliceAgain(server);
  PhoenixClient anonymous(server);

  EXPECT_EQ(alice.join("room:1", "1", {{"user_id", "alice"}}).as_array()[3], "phx_reply");
  auto aliceState = alice.next();
  EXPECT_EQ(aliceState.as_array()[0], "1");
  EXPECT_EQ(aliceState.as_array()[3], "presence_state");
  auto aliceRef = aliceState.at_pointer("/4/alice/metas/0/phx_ref");
  ASSERT_TRUE(aliceRef.is_string());
  auto aliceJoin = alice.next();
  EXPECT_EQ(aliceJoin.as_array()[3], "presence_diff");
  EXPECT_EQ(aliceJoin.as_array()[4], json::value(json::object{{"joins", aliceState.as_array()[4]},
                                                              {"leaves", json::object{}}}));

  // Integer user ids count as their text; extra meta fields are carried.
  bob.join("room:1", "1", {{"user_id", 42}, {"presence_meta", {{"name", "Bob"}}}});
  auto bobState = bob.next().as_array()[4];
  EXPECT_EQ(bobState.as_object().size(), 2U);
  EXPECT_EQ(bobState.at_pointer("/42/metas/0/name"), "Bob");
  EXPECT_EQ(bob.next().at_pointer("/4/joins/42/metas/0/name"), "Bob");
  EXPECT_EQ(alice.next().at_pointer("/4/joins/42/metas/0/name"), "Bob");

  // The same user on a second connection gets a second meta.
  aliceAgain.join("room:1", "5", {{"user_id", "alice"}});
  auto metas = aliceAgain.next().at_pointer("/4/alice/metas").as_array();
  ASSERT_EQ(metas.size(), 2U);
  EXPECT_NE(metas[0].at("phx_ref"), metas[1].at("phx_ref"));
  EXPECT_EQ(aliceAgain.next().as_array()[3], "presence_diff");
  EXPECT_EQ(alice.next().as_array()[3], "presence_diff");
  EXPECT_EQ(bob.next().as_array()[3], "presence_diff");

  // A member without user_id is told the state but not tracked: no diff.
  anonymous.join("room:1", "1");
  EXPECT_EQ(anonymous.next().as_array()[3], "presence_state");
  server.broadcast("room:1", "marker", {});
  for (auto* member : {&anonymous, &bob, &aliceAgain}) {
    EXPECT_EQ(member->next().as_array()[3], "marker");
  }

  // A dropped connection leaves: the others see exactly its meta go.
  server.dropConnection(0);
  for (auto* member : {&anonymous, &bob, &aliceAgain}) {
    auto leave = member->next();
    EXPECT_EQ(leave.as_array()[3], "presence_diff");
    EXPECT_EQ(leave.at_pointer("/4/leaves/alice/metas/0/phx_ref"), aliceRef);
    EXPECT_EQ(leave.at_pointer("/4/joins").as_object().size(), 0U);
  }
  EXPECT_EQ(server.presenceState("room:1").at("alice").at("metas").as_array().size(), 1U);

  // A leave is announced to the remaining members too.
  bob.send("1", "9", "room:1", "phx_leave");
  EXPECT_EQ(aliceAgain.next().at_pointer("/4/leaves/42/metas/0/name"), "Bob");
}

TEST(PhoenixTestServer, CanSendTheJoiningMembersDiffBeforeItsState) {
  PhoenixTestServer server;
  PhoenixClient first(server);
  EXPECT_EQ(eventsAfterJoin(first, "room:1", "1", {{"user_id", "u1"}}),
            (std::vector<std::string>{"phx_reply", "presence_state", "presence_diff"}));
  server.setPresenceDiffBeforeState(true);
  PhoenixClient second(server);
  EXPECT_EQ(eventsAfterJoin(second, "room:1", "1", {{"user_id", "u2"}}),
            (std::vector<std::string>{"phx_reply", "presence_diff", "presence_state"}));
}

TEST(PhoenixTestServer, ServesWssAndSurvivesManyRestarts) {
  auto certs = TestCertificates::generate();
  for (int round = 0; round < 3; ++round) {
    PhoenixTestServer::Options options;
    options.tls = certs;
    PhoenixTestServer server(std::move(options));
    EXPECT_TRUE(server.url().starts_with("wss://localhost:"));
    PhoenixClient client(server, "", {.trustedCaPem = certs.caCertificatePem});
    EXPECT_EQ(client.join("room:1", "1", {{"user_id", "u"}}).as_array()[3], "phx_reply");
    client.send("1", "2", "room:1", "delayed", {{"delay_ms", 10'000}});  // outlives the server
  }
}

}  // namespace
}  // namespace vantor::testing
