#include "ScriptedDemo.hpp"

#include <algorithm>
#include <atomic>
#include <boost/json/serialize.hpp>
#include <functional>
#include <memory>
#include <thread>

#include "Transcript.hpp"
#include "vantor/realtime/Channel.hpp"
#include "vantor/realtime/Presence.hpp"
#include "vantor/realtime/Push.hpp"
#include "vantor/realtime/Socket.hpp"
#include "vantor/realtime/URLSessionTransport.hpp"
#include "vantor/testing/PhoenixTestServer.hpp"

namespace vantor::demo {

namespace {

using namespace vantor::realtime;
using vantor::testing::PhoenixTestServer;

std::string text(const Payload& payload, const char* key) {
  const auto* value = payload.if_contains(key);
  if (value == nullptr) {
    return "";
  }
  return value->is_string() ? std::string(value->get_string()) : boost::json::serialize(*value);
}

std::string names(const Presence::State& state) {
  std::string list;
  for (const auto& [key, presence] : state) {
    list += (list.empty() ? "" : ", ") + key;
    if (presence.at("metas").size() > 1) {
      list += " (x" + std::to_string(presence.at("metas").size()) + ")";
    }
  }
  return list.empty() ? "nobody" : list;
}

/// One person in the lobby: a socket, a channel and its presence.
struct User {
  std::string name;
  std::shared_ptr<Socket> socket;
  std::shared_ptr<Channel> channel;
  std::shared_ptr<Presence> presence;
  std::atomic<int> broadcastsReceived{0};
  std::string lastBroadcast;  // on the loop thread only

  // Alice sends her token in the URL; Bob sends his in the WebSocket
  // handshake, where proxies and server logs do not see it, and counts his
  // connection's traffic.
  User(std::string who, const PhoenixTestServer& server, Transcript& out, bool tokenInHandshake = false)
      : name(std::move(who)) {
    // The bundled server is on this machine: no proxy, whatever the environment says.
    URLSessionConfiguration configuration;
    configuration.proxy = platform::ProxySettings::none();
    Socket::ParamsClosure params;
    if (!tokenInHandshake) {
      params = [token = name + "-secret"] { return std::optional<Payload>(Payload{{"token", token}}); };
    }
    socket = Socket::make(
        server.url(),
        [configuration](const boost::urls::url& url) -> std::shared_ptr<PhoenixTransport> {
          return URLSessionTransport::make(url, configuration);
        },
        params);
    if (tokenInHandshake) {
      socket->setAuthToken(name + "-secret");
      socket->setCollectsMetrics(true);
    }
    socket->onOpen([this, &out] { out.say(name, "socket open"); });
    socket->onError([this, &out](const TransportError& error, const std::optional<HttpResponse>&) {
      out.say(name, "connection lost: " + error.description);
    });
    channel = socket->channel("room:lobby", {{"user_id", name}});
    channel->on("broadcast", [this, &out](const Message& message) {
      lastBroadcast = text(message.payload(), "body");
      out.say(name, "<- broadcast from " + text(message.payload(), "from") + ": \"" +
                        lastBroadcast + "\"");
      ++broadcastsReceived;
    });
    channel->onError([this, &out](const Message&) {
      out.say(name, "channel room:lobby errored; it will rejoin by itself");
    });
    presence = Presence::make(channel);
    presence->onSync([this, &out] { out.say(name, "sees in the lobby: " + names(presence->state())); });
    channel->join()->receive("ok", [this, &out](const Message&) {
      out.say(name, "joined room:lobby (join ref " + channel->joinRef().value_or("?") + ")");
    });
    out.say(name, "connecting to " + server.url());
    socket->connect();
  }

  ~User() { socket->disconnect(); }
};

bool waitFor(Transcript& out, const std::string& what, const std::function<bool()>& done) {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(15);
  while (!done()) {
    if (std::chrono::steady_clock::now() > deadline) {
      out.say("demo", "FAILED: gave up waiting until " + what);
      return false;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
  }
  return true;
}

}  // namespace

int runScripted() {
  Transcript out;
  PhoenixTestServer server;
  out.say("server", "bundled server listening at " + server.url());

  User alice("alice", server, out);
  User bob("bob", server, out, /*tokenInHandshake=*/true);
  auto bothInLobby = [&] {
    return alice.presence->state().size() == 2 && bob.presence->state().size() == 2;
  };
  if (!waitFor(out, "both users are in the lobby", bothInLobby)) {
    return 1;
  }

  out.say("alice", "-> broadcast \"Hi Bob!\"");
  alice.channel->push("broadcast", {{"from", "alice"}, {"body", "Hi Bob!"}});
  if (!waitFor(out, "bob hears alice", [&] { return bob.broadcastsReceived >= 1; })) {
    return 1;
  }

  std::atomic<bool> echoed{false};
  out.say("bob", "-> echo {\"text\":\"ping\"}");
  bob.channel->push("echo", {{"text", "ping"}})->receive("ok", [&](const Message& reply) {
    out.say("bob", "<- reply ok: " + boost::json::serialize(reply.payload()));
    echoed = true;
  });
  if (!waitFor(out, "bob's echo is answered", [&] { return echoed.load(); })) {
    return 1;
  }

  std::atomic<bool> timedOut{false};
  out.say("alice", "-> noreply, waiting at most 0.25s for an answer");
  alice.channel->push("noreply", {}, 0.25)->receive("timeout", [&](const Message&) {
    out.say("alice", "<- no reply within 0.25s: the push timed out");
    timedOut = true;
  });
  if (!waitFor(out, "alice's push times out", [&] { return timedOut.load(); })) {
    return 1;
  }

  std::optional<PhoenixTestServer::ConnectionId> bobConnection;
  for (const auto& join : server.receivedFrames("room:lobby", "phx_join")) {
    if (join.payload.at("user_id") == "bob") {
      bobConnection = join.connection;
    }
  }
  out.say("server", "dropping bob's connection without a close frame");
  server.dropConnection(*bobConnection);
  if (!waitFor(out, "bob notices", [&] { return !bob.channel->isJoined(); })) {
    return 1;
  }
  out.say("bob", "-> broadcast \"I was offline\" while disconnected (buffered)");
  bob.channel->push("broadcast", {{"from", "bob"}, {"body", "I was offline"}});
  if (!waitFor(out, "alice gets bob's buffered message",
               [&] { return alice.broadcastsReceived >= 2; })) {
    return 1;
  }
  std::size_t deliveries = 0;
  for (const auto& frame : server.receivedFrames("room:lobby", "broadcast")) {
    deliveries += text(frame.payload, "body") == "I was offline" ? 1 : 0;
  }
  out.say("server", "bob's buffered message arrived " + std::to_string(deliveries) +
                        " time(s), after his rejoin (join ref now " +
                        bob.channel->joinRef().value_or("?") + ")");
  if (deliveries != 1 || !waitFor(out, "both users are in the lobby again", bothInLobby)) {
    return 1;
  }

  out.say("alice", "leaving room:lobby");
  alice.channel->leave();
  if (!waitFor(out, "bob sees alice leave", [&] { return bob.presence->state().size() == 1; })) {
    return 1;
  }
  const auto tokens = server.authTokens();
  out.say("server", "tokens received in the handshake: " +
                        std::to_string(std::count_if(tokens.begin(), tokens.end(),
                                                     [](const auto& token) { return token == "bob-secret"; })) +
                        " times \"bob-secret\", none in a URL from bob");
  const auto m = bob.socket->metrics();
  out.say("bob", "stats: frames in " + std::to_string(m.framesIn) + " (" + std::to_string(m.bytesIn) +
                     " B), out " + std::to_string(m.framesOut) + " (" + std::to_string(m.bytesOut) +
                     " B), reconnects " + std::to_string(m.reconnects) + ", rejoins " + std::to_string(m.rejoins) +
                     ", pushes ok " + std::to_string(m.pushesOk) + " error " + std::to_string(m.pushesError) +
                     " timeout " + std::to_string(m.pushesTimeout));
  out.say("demo", "done");
  return 0;
}

}  // namespace vantor::demo
