// How the client's own work grows with the number of channels, outstanding
// pushes and presences: frames are fed straight into the socket by an
// in-process transport, so no network time is measured.
#include <boost/json/parse.hpp>
#include <boost/json/serialize.hpp>
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include "AllocationCounter.hpp"
#include "Summary.hpp"
#include "vantor/platform/EventLoop.hpp"
#include "vantor/realtime/Channel.hpp"
#include "vantor/realtime/Presence.hpp"
#include "vantor/realtime/Push.hpp"
#include "vantor/realtime/Socket.hpp"

namespace vantor::bench {

namespace {

namespace json = boost::json;
using Clock = std::chrono::steady_clock;
using platform::EventLoop;
using namespace vantor::realtime;

constexpr double never = 1e6;  // a time-out that does not fire during the run

/// A transport that opens at once, answers every join with "ok" and drops
/// everything else; the benchmark hands it received frames with `deliver`.
class LoopbackTransport : public PhoenixTransport {
 public:
  [[nodiscard]] PhoenixTransportReadyState readyState() const override { return state_; }
  [[nodiscard]] std::shared_ptr<PhoenixTransportDelegate> delegate() const override {
    return delegate_;
  }
  void setDelegate(std::shared_ptr<PhoenixTransportDelegate> delegate) override {
    delegate_ = std::move(delegate);
  }
  void connect() override {
    state_ = PhoenixTransportReadyState::open;
    EventLoop::main().post([this] {
      if (delegate_) {
        delegate_->onOpen();
      }
    });
  }
  void disconnect(int, std::optional<std::string>) override {
    state_ = PhoenixTransportReadyState::closed;
  }
  void send(std::string data) override {
    if (data.find("\"phx_join\"") == std::string::npos) {
      return;
    }
    auto frame = json::parse(data).as_array();
    json::array reply{frame[0], frame[1], frame[2], "phx_reply",
                      json::object{{"status", "ok"}, {"response", json::object{}}}};
    EventLoop::main().post([this, text = json::serialize(reply)] { deliver(text); });
  }

  /// Hands `text` to the socket as a received frame; on the loop thread.
  void deliver(const std::string& text) {
    if (delegate_) {
      delegate_->onMessage(text);
    }
  }

 private:
  PhoenixTransportReadyState state_ = PhoenixTransportReadyState::closed;
  std::shared_ptr<PhoenixTransportDelegate> delegate_;
};

struct Connected {
  std::shared_ptr<LoopbackTransport> transport = std::make_shared<LoopbackTransport>();
  std::shared_ptr<Socket> socket;

  Connected() {
    socket = Socket::make("ws://127.0.0.1:9/socket",
                          [transport = transport](const boost::urls::url&) -> std::shared_ptr<PhoenixTransport> {
                            return transport;
                          });
    socket->setSkipHeartbeat(true);
    socket->connect();
    settle();
  }
  ~Connected() { socket->disconnect(); }
  Connected(const Connected&) = delete;
  Connected& operator=(const Connected&) = delete;

  /// Waits until the work posted so far (join replies) has run.
  static void settle() { EventLoop::main().sync([] {}); }

  std::shared_ptr<Channel> joined(const std::string& topic) {
    auto channel = socket->channel(topic);
    channel->join(never);
    return channel;
  }
};

/// Seconds per call of `work`, run on the loop thread: the median of three
/// timed batches of at least `minimum` each.
template <class F>
double secondsPerCall(F&& work, std::chrono::milliseconds minimum = std::chrono::milliseconds(100)) {
  std::vector<double> batches;
  for (int batch = 0; batch < 3; ++batch) {
    std::int64_t calls = 0;
    const auto start = Clock::now();
    EventLoop::main().sync([&] {
      do {
        work();
        ++calls;
      } while (Clock::now() - start < minimum || calls < 3);
    });
    batches.push_back(std::chrono::duration<double>(Clock::now() - start).count() /
                      static_cast<double>(calls));
  }
  std::sort(batches.begin(), batches.end());
  return batches[1];
}

double routeBroadcast(int channels) {
  Connected client;
  std::int64_t received = 0;
  for (int i = 0; i < channels; ++i) {
    auto channel = client.joined("room:" + std::to_string(i));
    channel->on("news", [&received](const Message&) { ++received; });
  }
  Connected::settle();
  const std::string frame = R"([null,null,"room:0","news",{"body":"hi"}])";
  const double seconds = secondsPerCall([&] { client.transport->deliver(frame); });
  if (received == 0) {
    std::fprintf(stderr, "broadcast not delivered\n");
  }
  return seconds;
}

// A push and its reply while `outstanding - 1` other pushes await theirs.
double replyAmong(int outstanding) {
  Connected client;
  auto channel = client.joined("room:replies");
  Connected::settle();
  std::vector<std::shared_ptr<Push>> waiting;
  for (int i = 1; i < outstanding; ++i) {
    waiting.push_back(channel->push("echo", Payload{{"i", i}}, never));
  }
  const auto joinRef = channel->joinRef().value_or("");
  std::int64_t replies = 0;
  const double seconds = secondsPerCall([&] {
    auto push = channel->push("echo", Payload{{"i", 0}}, never);
    push->receive("ok", [&replies](const Message&) { ++replies; });
    json::array reply{joinRef, *push->ref(), "room:replies", "phx_reply",
                      json::object{{"status", "ok"}, {"response", json::object{}}}};
    client.transport->deliver(json::serialize(reply));
  });
  if (replies == 0) {
    std::fprintf(stderr, "reply not delivered\n");
  }
  return seconds;
}

// One diff that adds a key, then one that removes it, on a room of `size`.
double presenceDiff(int size) {
  Connected client;
  auto channel = client.joined("room:presence");
  auto presence = Presence::make(channel);
  std::int64_t changes = 0;
  presence->onJoin([&changes](auto&&...) { ++changes; });
  presence->onLeave([&changes](auto&&...) { ++changes; });
  Connected::settle();
  json::object room;
  for (int i = 0; i < size; ++i) {
    room["user" + std::to_string(i)] =
        json::object{{"metas", json::array{json::object{{"phx_ref", "r" + std::to_string(i)}}}}};
  }
  const auto joinRef = channel->joinRef().value_or("");
  EventLoop::main().sync([&] {
    client.transport->deliver(
        json::serialize(json::array{joinRef, nullptr, "room:presence", "presence_state", room}));
  });
  const json::object extra{{"extra", json::object{{"metas", json::array{json::object{{"phx_ref", "x"}}}}}}};
  const auto join = json::serialize(json::array{
      joinRef, nullptr, "room:presence", "presence_diff", json::object{{"joins", extra}, {"leaves", json::object{}}}});
  const auto leave = json::serialize(json::array{
      joinRef, nullptr, "room:presence", "presence_diff", json::object{{"joins", json::object{}}, {"leaves", extra}}});
  const double seconds = secondsPerCall([&] {
    client.transport->deliver(join);
    client.transport->deliver(leave);
  });
  if (changes == 0 || presence->state().size() != static_cast<std::size_t>(size)) {
    std::fprintf(stderr, "presence diff not applied\n");
  }
  return seconds / 2;
}

double bytesPerChannel() {
  Connected client;
  constexpr int count = 2000;
  std::vector<std::shared_ptr<Channel>> channels;
  channels.reserve(count);
  const auto before = liveBytes();
  for (int i = 0; i < count; ++i) {
    channels.push_back(client.joined("room:" + std::to_string(i)));
  }
  Connected::settle();
  return static_cast<double>(liveBytes() - before) / count;
}

double bytesPerPush() {
  Connected client;
  auto channel = client.joined("room:footprint");
  Connected::settle();
  constexpr int count = 20000;
  std::vector<std::shared_ptr<Push>> pushes;
  pushes.reserve(count);
  const auto before = liveBytes();
  for (int i = 0; i < count; ++i) {
    pushes.push_back(channel->push("new_msg", Payload{{"body", "hello"}}, never));
  }
  Connected::settle();
  return static_cast<double>(liveBytes() - before) / count;
}

}  // namespace

void runScaling(Summary& summary) {
  const double route10 = routeBroadcast(10);
  const double route10k = routeBroadcast(10'000);
  const double reply1 = replyAmong(1);
  const double reply100k = replyAmong(100'000);
  const double presence100 = presenceDiff(100);
  const double presence100k = presenceDiff(100'000);
  const double channelBytes = bytesPerChannel();
  const double pushBytes = bytesPerPush();

  std::printf("\nScaling, on the loop thread, frames handed straight to the socket\n");
  std::printf("%-44s %14s\n", "case", "us per event");
  std::printf("%-44s %14.2f\n", "broadcast routed, 10 joined channels", route10 * 1e6);
  std::printf("%-44s %14.2f\n", "broadcast routed, 10,000 joined channels", route10k * 1e6);
  std::printf("%-44s %14.2f\n", "push + reply, 1 outstanding", reply1 * 1e6);
  std::printf("%-44s %14.2f\n", "push + reply, 100,000 outstanding", reply100k * 1e6);
  std::printf("%-44s %14.2f\n", "one-key presence diff, 100 present", presence100 * 1e6);
  std::printf("%-44s %14.2f\n", "one-key presence diff, 100,000 present", presence100k * 1e6);
  std::printf("\nMemory held (live heap bytes)\n");
  std::printf("%-44s %14.0f\n", "per joined channel", channelBytes);
  std::printf("%-44s %14.0f\n", "per outstanding push", pushBytes);
  std::fflush(stdout);

  summary.emplace_back("route_10k_over_10", route10k / route10);
  summary.emplace_back("reply_100k_over_1", reply100k / reply1);
  summary.emplace_back("presence_100k_over_100", presence100k / presence100);
  summary.emplace_back("bytes_per_channel", channelBytes);
  summary.emplace_back("bytes_per_push", pushBytes);
}

}  // namespace vantor::bench
