#include "vantor/testing/PhoenixTestServer.hpp"

#include <boost/json/array.hpp>
#include <boost/json/parse.hpp>
#include <boost/json/serialize.hpp>
#include <boost/json/value.hpp>
#include <boost/url/parse.hpp>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <deque>
#include <random>
#include <utility>

#include "Recorder.hpp"
#include "vantor/platform/Base64.hpp"

namespace vantor::testing {
namespace {

namespace json = boost::json;
using ConnectionId = PhoenixTestServer::ConnectionId;
using Frame = PhoenixTestServer::Frame;
using Ref = std::optional<std::string>;

constexpr std::string_view kVersion = "2.0.0";

json::value toJson(const Ref& ref) { return ref ? json::value(*ref) : json::value(nullptr); }

bool readRef(const json::value& value, Ref& out) {
  if (value.is_null()) {
    return true;
  }
  if (const auto* text = value.if_string()) {
    out = std::string(*text);
    return true;
  }
  return false;
}

// A frame as this protocol version defines it; anything else is rejected.
std::optional<Frame> decodeFrame(ConnectionId connection, const std::string& text) {
  boost::system::error_code ec;
  auto value = json::parse(text, ec);
  if (ec || !value.is_array() || value.as_array().size() != 5) {
    return std::nullopt;
  }
  const auto& items = value.as_array();
  Frame frame{connection, std::nullopt, std::nullopt, {}, {}, {}};
  if (!readRef(items[0], frame.joinRef) || !readRef(items[1], frame.ref) || !items[2].is_string() ||
      !items[3].is_string() || !items[4].is_object()) {
    return std::nullopt;
  }
  frame.topic = items[2].as_string();
  frame.event = items[3].as_string();
  frame.payload = items[4].as_object();
  return frame;
}

bool matches(const Frame& frame, std::string_view topic, std::string_view event) {
  return frame.topic == topic && (event.empty() || frame.event == event);
}

std::size_t countMatching(const std::vector<Frame>& frames, std::string_view topic,
                          std::string_view event) {
  return static_cast<std::size_t>(std::count_if(
      frames.begin(), frames.end(), [&](const Frame& f) { return matches(f, topic, event); }));
}

// The presence key of a join: "user_id" as a string, or an integer's text.
std::optional<std::string> presenceKey(const json::object& joinPayload) {
  const auto* userId = joinPayload.if_contains("user_id");
  if (userId == nullptr) {
    return std::nullopt;
  }
  if (const auto* text = userId->if_string()) {
    return std::string(*text);
  }
  if (userId->is_int64()) {
    return std::to_string(userId->as_int64());
  }
  return std::nullopt;
}

std::chrono::milliseconds delayOf(const json::object& payload) {
  const auto* delay = payload.if_contains("delay_ms");
  const auto* ms = delay != nullptr ? delay->if_int64() : nullptr;
  return std::chrono::milliseconds(ms != nullptr ? std::clamp<std::int64_t>(*ms, 0, 3'600'000) : 0);
}

json::object replyPayload(std::string_view status, json::object response) {
  return {{"status", status}, {"response", std::move(response)}};
}

}  // namespace

class PhoenixTestServer::Impl {
 public:
  explicit Impl(Options options);
  // The server thread must stop before the state that its hooks use goes.
  ~Impl() {
    ws_->stop();
    longPolls_.clear();  // held polls keep their connections, which need the server
  }
  Impl(const Impl&) = delete;
  Impl& operator=(const Impl&) = delete;

  WebSocketTestServer& ws() { return *ws_; }

  void onServerDo(const std::function<void()>& f) { ws_->execute(f); }

  // Everything below runs on the server thread.
  std::optional<int> screen(const std::string& target) const;
  std::optional<std::string> chooseSubprotocol(const std::string& offered);
  void opened(ConnectionId connection, const std::string& target);
  void received(ConnectionId connection, const std::string& text);
  void closed(ConnectionId connection);
  // Long-poll: requests to "/socket/longpoll", and its sessions.
  void http(const WebSocketTestServer::HttpRequest& request, WebSocketTestServer::HttpRespond respond);
  void endLongPolls();

  void endChannels(const std::string& topic, std::string_view event);
  void pushToMembers(const std::string& topic, const std::string& event,
                     const json::object& payload);
  void broadcast(const std::string& topic, std::string_view event, const json::object& payload);
  json::object presenceState(const std::string& topic) const;

  std::map<std::string, std::string> forbidden_;  // topic -> reason
  std::size_t longPollTimeouts_ = 0;               // long-poll requests left to answer 408
  bool answerHeartbeats_ = true;

  // Counted here rather than taken from the WebSocket layer, so that a wait
  // that returns sees this server's processing of the event as well.
  struct Records {
    std::vector<std::map<std::string, std::string>> params;  // one per connection so far
    std::vector<std::optional<std::string>> authTokens;       // the same
    std::size_t open = 0;
    std::vector<Frame> frames;
    std::map<std::string, std::size_t> members;
  };
  Recorder<Records> records_;

 private:
  struct Membership {
    Ref joinRef;
    std::optional<std::string> phxRef;  // set when presence tracks it
  };
  struct Presence {
    std::string phxRef;
    std::string key;
    json::object meta;
  };

  void dispatch(const Frame& frame);
  void join(const Frame& frame);
  void handleChannelEvent(const Frame& frame, const Membership& channel);
  // Removes the channel and tells the remaining members who left; the member
  // itself is told nothing here.
  void removeChannel(ConnectionId connection, const std::string& topic);
  void send(ConnectionId connection, const Ref& joinRef, const Ref& ref, const std::string& topic,
            std::string_view event, json::object payload);
  void reply(ConnectionId connection, const Ref& joinRef, const Ref& ref, const std::string& topic,
             std::string_view status, json::object response);
  void sendPresenceDiff(const std::string& topic, json::object joins, json::object leaves);
  std::vector<ConnectionId> membersOf(const std::string& topic) const;
  void countMembers(const std::string& topic);
  void trace(ConnectionId connection, std::string_view direction, std::string_view text) const;

  // A long-poll session: a connection whose frames wait for the next poll.
  struct LongPollSession {
    ConnectionId id;
    std::deque<std::string> outbox;
    WebSocketTestServer::HttpRespond waiting;  // the poll held until a frame comes
    std::uint64_t pollSerial = 0;
    std::chrono::steady_clock::time_point lastSeen;
  };
  void deliver(const std::string& token, LongPollSession& session);
  void endLongPoll(const std::string& token);
  void sweepLongPolls();

  Options options_;
  std::map<std::string, LongPollSession> longPolls_;          // by token
  std::map<ConnectionId, std::string> longPollTokens_;       // by connection
  ConnectionId nextLongPollId_ = 1'000'000;  // apart from the WebSocket layer's numbers
  // From the handshake that is being accepted, for its `opened`.
  std::optional<std::string> pendingAuthToken_;
  std::map<ConnectionId, std::map<std::string, Membership>> channels_;
  std::map<std::string, std::vector<Presence>> presence_;
  std::uint64_t nextPhxRef_ = 1;
  // Set once `ws_` is assigned. The WebSocket server accepts as soon as it
  // is made, so a client already reconnecting can reach a hook before then:
  // hooks wait for it.
  std::atomic<bool> wsReady_{false};
  // Last: made when everything it calls back into exists.
  std::unique_ptr<WebSocketTestServer> ws_;
};

PhoenixTestServer::Impl::Impl(Options options)
    : options_(std::move(options)) {
  WebSocketTestServer::Options wsOptions;
  wsOptions.tls = std::move(options_.tls);
  wsOptions.port = options_.port;
  wsOptions.echo = false;
  wsOptions.idleTimeout = options_.idleTimeout;
  wsOptions.permessageDeflate = options_.compress;
  wsOptions.httpKeepAlive = options_.httpKeepAlive;
  wsOptions.recordConnections = options_.recordConnections;
  // Each hook first waits until `ws_` is assigned.
  auto whenReady = [this](auto hook) {
    return [this, hook](auto&&... args) {
      wsReady_.wait(false);
      return hook(args...);
    };
  };
  wsOptions.hooks.chooseSubprotocol =
      whenReady([this](const std::string& offered) { return chooseSubprotocol(offered); });
  wsOptions.hooks.screenHandshake =
      whenReady([this](const std::string& target) { return screen(target); });
  wsOptions.hooks.onOpen = whenReady([this](ConnectionId c, const std::string& target) { opened(c, target); });
  wsOptions.hooks.onText = whenReady([this](ConnectionId c, const std::string& text) { received(c, text); });
  wsOptions.hooks.onClosed = whenReady([this](ConnectionId c) { closed(c); });
  wsOptions.hooks.onHttp = whenReady([this](const WebSocketTestServer::HttpRequest& request,
                                            const WebSocketTestServer::HttpRespond& respond) { http(request, respond); });
  ws_ = std::make_unique<WebSocketTestServer>(std::move(wsOptions));
  wsReady_ = true;
  wsReady_.notify_all();
  ws_->runAfter(std::chrono::seconds(1), [this] { sweepLongPolls(); });
}

namespace {

std::string newToken() {
  static thread_local std::mt19937_64 generator{std::random_device{}()};
  static constexpr char hex[] = "0123456789abcdef";
  std::string token;
  for (int i = 0; i < 32; ++i) {
    token += hex[generator() % 16];
  }
  return token;
}

std::string jsonAnswer(json::object answer) { return json::serialize(answer); }

}  // namespace

void PhoenixTestServer::Impl::http(const WebSocketTestServer::HttpRequest& request,
                                   WebSocketTestServer::HttpRespond respond) {
  auto parsed = boost::urls::parse_origin_form(request.target);
  if (!parsed) {
    return respond(400, "text/plain", "an unreadable target\n");
  }
  if (parsed->path() != "/socket/longpoll") {
    return respond(404, "text/plain", "not found\n");
  }
  auto params = parsed->params();
  auto vsn = params.find("vsn");
  if (vsn == params.end() || (*vsn).value != kVersion) {
    return respond(400, "text/plain", "vsn 2.0.0 is required\n");
  }
  auto answer = [&respond](json::object body) { respond(200, "application/json", jsonAnswer(std::move(body))); };
  std::optional<std::string> token;
  if (auto found = params.find("token"); found != params.end()) {
    token = std::string((*found).value);
  } else if (auto header = request.headers.find("x-phoenix-longpoll-token"); header != request.headers.end()) {
    token = header->second;
  }
  if (!token) {
    // A new session, opened as a connection is.
    const auto id = nextLongPollId_++;
    auto fresh = newToken();
    longPolls_[fresh] = LongPollSession{id, {}, nullptr, 0, std::chrono::steady_clock::now()};
    longPollTokens_[id] = fresh;
    if (auto authToken = request.headers.find("x-phoenix-authtoken"); authToken != request.headers.end()) {
      pendingAuthToken_ = authToken->second;
    } else {
      pendingAuthToken_.reset();
    }
    opened(id, request.target);
    return answer({{"status", 410}, {"token", fresh}, {"messages", json::array()}});
  }
  auto found = longPolls_.find(*token);
  if (found == longPolls_.end()) {
    return answer({{"status", 410}});
  }
  auto& session = found->second;
  session.lastSeen = std::chrono::steady_clock::now();
  if (longPollTimeouts_ > 0) {
    --longPollTimeouts_;
    return answer({{"status", 408}});
  }
  if (request.method == "POST") {
    const bool several = request.contentType.find("ndjson") != std::string::npos;
    std::vector<std::string> texts;
    if (several) {
      std::size_t start = 0;
      while (start < request.body.size()) {
        auto end = std::min(request.body.find('\n', start), request.body.size());
        if (end > start) {
          texts.push_back(request.body.substr(start, end - start));
        }
        start = end + 1;
      }
    } else {
      texts.push_back(request.body);
    }
    const auto id = session.id;
    const auto key = found->first;
    for (const auto& text : texts) {
      if (!longPolls_.contains(key)) {
        break;  // a frame ended the session
      }
      received(id, text);
    }
    return answer({{"status", 200}});
  }
  if (session.waiting) {
    session.waiting(200, "application/json", jsonAnswer({{"status", 204}, {"token", *token}, {"messages", json::array()}}));
  }
  session.waiting = std::move(respond);
  const auto serial = ++session.pollSerial;
  deliver(*token, session);
  if (session.waiting) {
    ws_->runAfter(options_.longPollTime, [this, key = *token, serial] {
      auto again = longPolls_.find(key);
      if (again != longPolls_.end() && again->second.pollSerial == serial && again->second.waiting) {
        auto waiting = std::exchange(again->second.waiting, nullptr);
        again->second.lastSeen = std::chrono::steady_clock::now();
        waiting(200, "application/json", jsonAnswer({{"status", 204}, {"token", key}, {"messages", json::array()}}));
      }
    });
  }
}

void PhoenixTestServer::Impl::deliver(const std::string& token, LongPollSession& session) {
  if (!session.waiting || session.outbox.empty()) {
    return;
  }
  json::array messages;
  for (auto& text : session.outbox) {
    messages.emplace_back(std::move(text));
  }
  session.outbox.clear();
  session.lastSeen = std::chrono::steady_clock::now();
  auto waiting = std::exchange(session.waiting, nullptr);
  waiting(200, "application/json",
          jsonAnswer({{"status", 200}, {"token", token}, {"messages", std::move(messages)}}));
}

void PhoenixTestServer::Impl::endLongPoll(const std::string& token) {
  auto found = longPolls_.find(token);
  if (found == longPolls_.end()) {
    return;
  }
  auto session = std::move(found->second);
  longPolls_.erase(found);
  longPollTokens_.erase(session.id);
  if (session.waiting) {
    session.waiting(200, "application/json", jsonAnswer({{"status", 410}}));
  }
  closed(session.id);
}

void PhoenixTestServer::Impl::endLongPolls() {
  std::vector<std::string> tokens;
  for (const auto& [token, session] : longPolls_) {
    tokens.push_back(token);
  }
  for (const auto& token : tokens) {
    endLongPoll(token);
  }
}

// A session that stopped polling goes after `longPollSessionIdle`, as on a
// real server; its channels and presence go with it.
void PhoenixTestServer::Impl::sweepLongPolls() {
  const auto now = std::chrono::steady_clock::now();
  std::vector<std::string> idle;
  for (const auto& [token, session] : longPolls_) {
    if (!session.waiting && now - session.lastSeen > options_.longPollSessionIdle) {
      idle.push_back(token);
    }
  }
  for (const auto& token : idle) {
    endLongPoll(token);
  }
  ws_->runAfter(std::chrono::milliseconds(200), [this] { sweepLongPolls(); });
}

std::optional<int> PhoenixTestServer::Impl::screen(const std::string& target) const {
  auto parsed = boost::urls::parse_origin_form(target);
  if (!parsed) {
    return 400;
  }
  if (parsed->path() != "/socket/websocket") {
    return 404;
  }
  auto params = parsed->params();
  auto vsn = params.find("vsn");
  if (vsn == params.end() || (*vsn).value != kVersion) {
    return 400;
  }
  return std::nullopt;
}

std::optional<std::string> PhoenixTestServer::Impl::chooseSubprotocol(const std::string& offered) {
  std::vector<std::string> names;
  for (std::size_t start = 0; start <= offered.size();) {
    auto end = std::min(offered.find(',', start), offered.size());
    auto name = offered.substr(start, end - start);
    name.erase(0, name.find_first_not_of(' '));
    name.erase(name.find_last_not_of(' ') + 1);
    if (!name.empty()) {
      names.push_back(std::move(name));
    }
    start = end + 1;
  }
  constexpr std::string_view tokenPrefix = "base64url.bearer.phx.";
  pendingAuthToken_.reset();
  for (const auto& name : names) {
    if (name.starts_with(tokenPrefix)) {
      pendingAuthToken_ = platform::base64Decode(std::string_view(name).substr(tokenPrefix.size()));
    }
  }
  if (options_.subprotocolAnswer) {
    return options_.subprotocolAnswer(names);
  }
  if (std::find(names.begin(), names.end(), "phoenix") != names.end()) {
    return "phoenix";
  }
  return std::nullopt;
}

void PhoenixTestServer::Impl::opened(ConnectionId connection, const std::string& target) {
  std::map<std::string, std::string> params;
  if (auto parsed = boost::urls::parse_origin_form(target)) {
    for (auto param : parsed->params()) {
      params[param.key] = param.value;
    }
  }
  channels_[connection];
  trace(connection, "", "connected: " + target);
  auto authToken = std::exchange(pendingAuthToken_, std::nullopt);
  const bool keep = options_.recordConnections;
  records_.update([&](Records& r) {
    if (keep) {
      r.params.push_back(std::move(params));
      r.authTokens.push_back(std::move(authToken));
    }
    ++r.open;
  });
}

void PhoenixTestServer::Impl::received(ConnectionId connection, const std::string& text) {
  trace(connection, "<- ", text);
  auto frame = decodeFrame(connection, text);
  if (!frame) {
    // What a real server's serializer does with a frame it cannot decode:
    // the connection process crashes and the socket closes with 1011.
    if (auto polling = longPollTokens_.find(connection); polling != longPollTokens_.end()) {
      endLongPoll(polling->second);
      return;
    }
    ws_->closeConnectionWith(connection, 1011);
    return;
  }
  records_.update([&](Records& r) { r.frames.push_back(*frame); });
  dispatch(*frame);
}

void PhoenixTestServer::Impl::closed(ConnectionId connection) {
  trace(connection, "", "disconnected");
  std::vector<std::string> topics;
  for (const auto& [topic, channel] : channels_[connection]) {
    topics.push_back(topic);
  }
  for (const auto& topic : topics) {
    removeChannel(connection, topic);
  }
  channels_.erase(connection);
  records_.update([](Records& r) { --r.open; });
}

void PhoenixTestServer::Impl::dispatch(const Frame& frame) {
  if (frame.topic == "phoenix" && frame.event == "heartbeat") {
    if (answerHeartbeats_) {
      reply(frame.connection, std::nullopt, frame.ref, frame.topic, "ok", {});
    }
    return;
  }
  if (frame.event == "phx_join") {
    return join(frame);
  }
  auto& channels = channels_[frame.connection];
  auto channel = channels.find(frame.topic);
  if (channel == channels.end()) {
    // A leave may race a close that the server already sent; real servers
    // answer it rather than calling the topic unmatched.
    if (frame.event == "phx_leave") {
      reply(frame.connection, frame.joinRef, frame.ref, frame.topic, "ok", {});
    } else {
      reply(frame.connection, std::nullopt, frame.ref, frame.topic, "error",
            {{"reason", "unmatched topic"}});
    }
    return;
  }
  if (frame.event == "phx_leave") {
    auto joinRef = channel->second.joinRef;
    if (frame.joinRef && joinRef && *frame.joinRef != *joinRef) {
      return;  // meant for a channel instance that is already gone
    }
    reply(frame.connection, joinRef, frame.ref, frame.topic, "ok", {});
    send(frame.connection, joinRef, joinRef, frame.topic, "phx_close", {});
    removeChannel(frame.connection, frame.topic);
    return;
  }
  handleChannelEvent(frame, channel->second);
}

void PhoenixTestServer::Impl::join(const Frame& frame) {
  auto connection = frame.connection;
  const auto& topic = frame.topic;
  auto& channels = channels_[connection];
  // A join of a joined topic replaces the older channel. As on a real
  // server, the new join's reply goes out first and the older channel's
  // "phx_close" after it.
  std::optional<Ref> replaced;
  if (auto old = channels.find(topic); old != channels.end()) {
    replaced = old->second.joinRef;
    removeChannel(connection, topic);
  }
  auto closeReplaced = [&] {
    if (replaced) {
      send(connection, *replaced, *replaced, topic, "phx_close", {});
    }
  };
  if (auto reason = forbidden_.find(topic); reason != forbidden_.end()) {
    reply(connection, frame.joinRef, frame.ref, topic, "error", {{"reason", reason->second}});
    closeReplaced();
    return;
  }

  auto& channel = channels[topic];
  channel.joinRef = frame.joinRef;
  countMembers(topic);
  reply(connection, frame.joinRef, frame.ref, topic, "ok", {});
  closeReplaced();
  if (!options_.presence) {
    return;
  }

  json::object joins;
  if (auto key = presenceKey(frame.payload)) {
    auto phxRef = "phx-" + std::to_string(nextPhxRef_++);
    json::object meta{{"phx_ref", phxRef}};
    if (const auto* extra = frame.payload.if_contains("presence_meta");
        extra && extra->is_object()) {
      for (const auto& [name, value] : extra->as_object()) {
        if (name != "phx_ref") {
          meta[name] = value;
        }
      }
    }
    channel.phxRef = phxRef;
    presence_[topic].push_back({phxRef, *key, meta});
    joins[*key] = json::object{{"metas", json::array{meta}}};
  }
  // The own diff before the state, as real servers may deliver them.
  if (!joins.empty()) {
    sendPresenceDiff(topic, std::move(joins), {});
  }
  send(connection, frame.joinRef, std::nullopt, topic, "presence_state", presenceState(topic));
}

void PhoenixTestServer::Impl::handleChannelEvent(const Frame& frame, const Membership& channel) {
  auto connection = frame.connection;
  const auto& event = frame.event;
  if (event == "echo") {
    reply(connection, channel.joinRef, frame.ref, frame.topic, "ok", frame.payload);
  } else if (event == "fail") {
    reply(connection, channel.joinRef, frame.ref, frame.topic, "error", frame.payload);
  } else if (event == "delayed") {
    ws_->runAfter(delayOf(frame.payload), [this, frame, joinRef = channel.joinRef] {
      // The channel may have been left, crashed or rejoined in the meantime.
      auto connectionChannels = channels_.find(frame.connection);
      if (connectionChannels == channels_.end()) {
        return;
      }
      auto current = connectionChannels->second.find(frame.topic);
      if (current != connectionChannels->second.end() && current->second.joinRef == joinRef) {
        reply(frame.connection, joinRef, frame.ref, frame.topic, "ok", frame.payload);
      }
    });
  } else if (event == "noreply") {
    // Deliberately silent, for push time-outs.
  } else if (event == "broadcast") {
    broadcast(frame.topic, "broadcast", frame.payload);
  } else if (event == "push_back") {
    send(connection, channel.joinRef, std::nullopt, frame.topic, "pushed", frame.payload);
  } else {
    reply(connection, channel.joinRef, frame.ref, frame.topic, "ok", {});
  }
}

void PhoenixTestServer::Impl::removeChannel(ConnectionId connection, const std::string& topic) {
  auto& channels = channels_[connection];
  auto channel = channels.find(topic);
  if (channel == channels.end()) {
    return;
  }
  auto phxRef = channel->second.phxRef;
  channels.erase(channel);
  countMembers(topic);
  if (!phxRef) {
    return;
  }
  auto& present = presence_[topic];
  auto entry = std::find_if(present.begin(), present.end(),
                            [&](const Presence& p) { return p.phxRef == *phxRef; });
  if (entry == present.end()) {
    return;
  }
  json::object leaves{{entry->key, json::object{{"metas", json::array{entry->meta}}}}};
  present.erase(entry);
  sendPresenceDiff(topic, {}, std::move(leaves));
}

void PhoenixTestServer::Impl::endChannels(const std::string& topic, std::string_view event) {
  for (auto member : membersOf(topic)) {
    auto joinRef = channels_[member][topic].joinRef;
    send(member, joinRef, joinRef, topic, event, {});
    removeChannel(member, topic);
  }
}

void PhoenixTestServer::Impl::pushToMembers(const std::string& topic, const std::string& event,
                                            const json::object& payload) {
  for (auto member : membersOf(topic)) {
    send(member, channels_[member][topic].joinRef, std::nullopt, topic, event, payload);
  }
}

void PhoenixTestServer::Impl::broadcast(const std::string& topic, std::string_view event,
                                        const json::object& payload) {
  for (auto member : membersOf(topic)) {
    send(member, std::nullopt, std::nullopt, topic, event, payload);
  }
}

void PhoenixTestServer::Impl::sendPresenceDiff(const std::string& topic, json::object joins,
                                               json::object leaves) {
  if (options_.presence) {
    broadcast(topic, "presence_diff",
              json::object{{"joins", std::move(joins)}, {"leaves", std::move(leaves)}});
  }
}

json::object PhoenixTestServer::Impl::presenceState(const std::string& topic) const {
  json::object state;
  if (auto present = presence_.find(topic); present != presence_.end()) {
    for (const auto& entry : present->second) {
      auto& presence = state[entry.key];
      if (!presence.is_object()) {
        presence = json::object{{"metas", json::array{}}};
      }
      presence.as_object()["metas"].as_array().push_back(entry.meta);
    }
  }
  return state;
}

std::vector<ConnectionId> PhoenixTestServer::Impl::membersOf(const std::string& topic) const {
  std::vector<ConnectionId> members;
  for (const auto& [connection, channels] : channels_) {
    if (channels.contains(topic)) {
      members.push_back(connection);
    }
  }
  return members;
}

void PhoenixTestServer::Impl::countMembers(const std::string& topic) {
  auto count = membersOf(topic).size();
  records_.update([&](Records& r) { r.members[topic] = count; });
}

void PhoenixTestServer::Impl::send(ConnectionId connection, const Ref& joinRef, const Ref& ref,
                                   const std::string& topic, std::string_view event,
                                   json::object payload) {
  auto text = json::serialize(json::array{toJson(joinRef), toJson(ref), json::value(topic),
                                          json::value(event), std::move(payload)});
  trace(connection, "-> ", text);
  if (auto polling = longPollTokens_.find(connection); polling != longPollTokens_.end()) {
    const auto token = polling->second;
    auto& session = longPolls_.at(token);
    session.outbox.push_back(std::move(text));
    deliver(token, session);
    return;
  }
  ws_->sendTextTo(connection, std::move(text));
}

void PhoenixTestServer::Impl::reply(ConnectionId connection, const Ref& joinRef, const Ref& ref,
                                    const std::string& topic, std::string_view status,
                                    json::object response) {
  send(connection, joinRef, ref, topic, "phx_reply", replyPayload(status, std::move(response)));
}

void PhoenixTestServer::Impl::trace(ConnectionId connection, std::string_view direction,
                                    std::string_view text) const {
  if (options_.trace) {
    options_.trace("[" + std::to_string(connection) + "] " + std::string(direction) +
                   std::string(text));
  }
}

// --- Public interface ----------------------------------------------------------------------

PhoenixTestServer::PhoenixTestServer() : PhoenixTestServer(Options{}) {}

PhoenixTestServer::PhoenixTestServer(Options options)
    : impl_(std::make_unique<Impl>(std::move(options))) {}

PhoenixTestServer::~PhoenixTestServer() = default;

std::uint16_t PhoenixTestServer::port() const { return impl_->ws().port(); }

std::string PhoenixTestServer::url() const { return impl_->ws().url("/socket"); }

bool PhoenixTestServer::waitForConnections(std::size_t count,
                                           std::chrono::milliseconds timeout) const {
  return impl_->records_.waitFor(timeout, [&](const auto& r) { return r.params.size() >= count; });
}

bool PhoenixTestServer::waitForOpenConnections(std::size_t count,
                                               std::chrono::milliseconds timeout) const {
  return impl_->records_.waitFor(timeout, [&](const auto& r) { return r.open == count; });
}

std::size_t PhoenixTestServer::openConnections() const {
  return impl_->records_.read([](const auto& r) { return r.open; });
}

std::vector<std::map<std::string, std::string>> PhoenixTestServer::connectParams() const {
  return impl_->records_.read([](const auto& r) { return r.params; });
}

std::vector<std::optional<std::string>> PhoenixTestServer::authTokens() const {
  return impl_->records_.read([](const auto& r) { return r.authTokens; });
}

std::vector<Frame> PhoenixTestServer::receivedFrames(std::string_view topic,
                                                     std::string_view event) const {
  return impl_->records_.read([&](const auto& r) {
    std::vector<Frame> result;
    std::copy_if(r.frames.begin(), r.frames.end(), std::back_inserter(result),
                 [&](const Frame& f) { return matches(f, topic, event); });
    return result;
  });
}

std::size_t PhoenixTestServer::countReceived(std::string_view topic, std::string_view event) const {
  return impl_->records_.read([&](const auto& r) { return countMatching(r.frames, topic, event); });
}

bool PhoenixTestServer::waitForFrames(std::string_view topic, std::string_view event,
                                      std::size_t count, std::chrono::milliseconds timeout) const {
  return impl_->records_.waitFor(
      timeout, [&](const auto& r) { return countMatching(r.frames, topic, event) >= count; });
}

std::vector<Frame> PhoenixTestServer::takeReceivedFrames() {
  std::vector<Frame> taken;
  impl_->records_.update([&](auto& r) {
    taken.swap(r.frames);
    r.frames.shrink_to_fit();
  });
  return taken;
}

std::size_t PhoenixTestServer::heartbeatsReceived() const {
  return countReceived("phoenix", "heartbeat");
}

void PhoenixTestServer::forbidTopic(const std::string& topic, const std::string& reason) {
  impl_->onServerDo([&] { impl_->forbidden_[topic] = reason; });
}

void PhoenixTestServer::allowTopic(const std::string& topic) {
  impl_->onServerDo([&] { impl_->forbidden_.erase(topic); });
}

std::size_t PhoenixTestServer::memberCount(const std::string& topic) const {
  return impl_->records_.read([&](const auto& r) {
    auto it = r.members.find(topic);
    return it == r.members.end() ? std::size_t{0} : it->second;
  });
}

bool PhoenixTestServer::waitForMembers(const std::string& topic, std::size_t count,
                                       std::chrono::milliseconds timeout) const {
  return impl_->records_.waitFor(timeout, [&](const auto& r) {
    auto it = r.members.find(topic);
    return (it == r.members.end() ? 0 : it->second) == count;
  });
}

void PhoenixTestServer::crashChannel(const std::string& topic) {
  impl_->onServerDo([&] { impl_->endChannels(topic, "phx_error"); });
}

void PhoenixTestServer::closeChannel(const std::string& topic) {
  impl_->onServerDo([&] { impl_->endChannels(topic, "phx_close"); });
}

void PhoenixTestServer::broadcast(const std::string& topic, const std::string& event,
                                  boost::json::object payload) {
  impl_->onServerDo([&] { impl_->broadcast(topic, event, payload); });
}

void PhoenixTestServer::push(const std::string& topic, const std::string& event,
                             boost::json::object payload) {
  impl_->onServerDo([&] { impl_->pushToMembers(topic, event, payload); });
}

void PhoenixTestServer::setHeartbeatReplies(bool answer) {
  impl_->onServerDo([&] { impl_->answerHeartbeats_ = answer; });
}

void PhoenixTestServer::refuseHandshake(std::optional<int> httpStatus) {
  impl_->ws().refuseHandshake(httpStatus);
}

void PhoenixTestServer::stallHandshakes(bool stall) { impl_->ws().stallHandshakes(stall); }

void PhoenixTestServer::closeAfterUpgrade(std::optional<std::uint16_t> code) {
  impl_->ws().closeAfterUpgrade(code);
}

void PhoenixTestServer::acceptHandshakes() { impl_->ws().acceptHandshakes(); }

void PhoenixTestServer::closeAndDrop(std::uint16_t code) { impl_->ws().closeAndDrop(code); }

void PhoenixTestServer::timeOutLongPollRequests(std::size_t count) {
  impl_->onServerDo([this, count] { impl_->longPollTimeouts_ = count; });
}

void PhoenixTestServer::shutDown() {
  impl_->onServerDo([this] { impl_->endLongPolls(); });
  impl_->ws().shutDown(1012);
}

void PhoenixTestServer::dropConnections() {
  impl_->onServerDo([this] { impl_->endLongPolls(); });
  impl_->ws().dropConnections();
}

void PhoenixTestServer::dropConnection(ConnectionId connection) {
  impl_->ws().dropConnection(connection);
}

void PhoenixTestServer::closeWith(std::uint16_t code, std::string reason) {
  impl_->ws().closeWith(code, std::move(reason));
}

void PhoenixTestServer::sendRaw(std::string text) { impl_->ws().sendText(std::move(text)); }

void PhoenixTestServer::sendBinary(std::string bytes) { impl_->ws().sendBinary(std::move(bytes)); }

WebSocketTestServer& PhoenixTestServer::webSocket() { return impl_->ws(); }

}  // namespace vantor::testing
