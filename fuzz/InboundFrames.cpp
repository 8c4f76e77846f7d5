// Received text frames: decoding, the frame as a Message, and its routing to
// channels, bindings and the pushes waiting for replies.
//
// Each input is a session of its own: a connected socket with a joined
// channel, a second channel of the same topic that never joined, a channel
// still joining, bindings (some of which push, leave or rewrite) and pushes
// waiting for replies. The input's lines are played in order:
//
//   a frame      the server sends it as one text frame
//   (empty)      the loop runs what is due: push and join time-outs, rejoins,
//                reconnects (every delay is 0)
//   !o !c !e     the connection opens, closes (1006), or fails
//
// The socket drops what would otherwise stop the process (short frames,
// presence data without "metas" or a string "phx_ref"), so frames of any
// shape are played. The references in this session are fixed: the lobby joins under "6" and
// its pushes wait for "10" and "11"; the other room joins under "9", and its
// buffered push waits for "12" (for a new reference once the join succeeds).

#include <boost/json/value.hpp>
#include <boost/url/url.hpp>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "FuzzSupport.hpp"
#include "FuzzTransport.hpp"
#include "vantor/realtime/Channel.hpp"
#include "vantor/realtime/Message.hpp"
#include "vantor/realtime/Presence.hpp"
#include "vantor/realtime/Push.hpp"
#include "vantor/realtime/Socket.hpp"

namespace vantor::realtime {
namespace {

using fuzz::FuzzTransport;

constexpr std::size_t maxLines = 32;
constexpr std::size_t handlersPerTick = 8;

void touch(const Message& message) {
  (void)message.payload();
  (void)message.status();
}

class Session {
 public:
  Session() {
    socket_ = Socket::make("ws://fuzz.test/socket", [this](const boost::urls::url&) {
      transport_ = std::make_shared<FuzzTransport>();
      return transport_;
    });
    // No heartbeat thread; every time-out and back-off is due at the next
    // tick, so nothing waits on the clock.
    socket_->setSkipHeartbeat(true);
    // Frames of any length and any presence data: what would stop the
    // process by default is dropped.
    socket_->setDropsMalformedInput(true);
    socket_->setTimeout(0);
    socket_->setRejoinAfter([](int) { return 0.0; });
    socket_->setReconnectAfter([](int) { return 0.0; });
    // The log lines are built (describing every frame), then dropped.
    socket_->setLogger([](const std::string&) {});
    socket_->onMessage([](const Message& message) {
      touch(message);
      (void)message.description();
    });

    lobby_ = socket_->channel("room:lobby", {{"user", "fuzz"}});
    other_ = socket_->channel("room:other");
    std::weak_ptr<Channel> lobby = lobby_;
    std::weak_ptr<Channel> other = other_;
    lobby_->on("new_msg", touch);
    lobby_->on("ping", [lobby](const Message&) {
      if (auto channel = lobby.lock()) {
        channel->push("pong", {{"n", 1}}, 0);
      }
    });
    lobby_->on("part", [other](const Message&) {
      if (auto channel = other.lock()) {
        channel->leave(0);
      }
    });
    const auto muted = lobby_->on("muted", touch);
    lobby_->on("unmute", [lobby, muted](const Message&) {
      if (auto channel = lobby.lock()) {
        channel->off("muted", muted);
      }
    });
    lobby_->onMessage([](const Message& message) {
      if (message.event() != "rename") {
        return message;
      }
      return Message(message.ref(), message.joinRef(), message.topic(), "renamed",
                     message.sharedRawPayload());
    });
    lobby_->join();
    presence_ = Presence::make(lobby_);
    presence_->onSync([] {});

    second_ = socket_->channel("room:lobby");
    second_->on("new_msg", touch);
    second_->onClose(touch);
    other_->onError(touch);
    other_->join();

    socket_->connect();
    transport_->open();
    // The lobby's join succeeds; the other room's stays unanswered.
    const auto joinRef = lobby_->joinRef().value_or("");
    transport_->receive(R"([")" + joinRef + R"(",")" + joinRef +
                        R"(","room:lobby","phx_reply",{"status":"ok","response":{}}])");
    // Pushes time out at once too: what a session leaves on the loop is due
    // when it ends, so the next input starts from an empty loop.
    for (const char* body : {"hello", "again"}) {
      track(lobby_->push("new_msg", {{"body", body}}, 0));
    }
    track(other_->push("typing", {}, 0));
  }

  void play(std::string_view line) {
    if (line.empty()) {
      fuzz::runReadyWork(handlersPerTick);
      return;
    }
    if (line.size() == 2 && line[0] == '!') {
      control(line[1]);
      return;
    }
    transport_->receive(line);
  }

 private:
  void track(const std::shared_ptr<Push>& push) {
    push->receive("ok", touch)->receive("error", touch)->receive("timeout", touch);
  }

  void control(char what) {
    using State = FuzzTransport::ReadyState;
    const auto state = transport_->readyState();
    switch (what) {
      case 'o':
        if (state == State::connecting) {
          transport_->open();
        }
        break;
      case 'c':
        if (state == State::open || state == State::connecting) {
          transport_->close(1006);
        }
        break;
      case 'e':
        if (state == State::open || state == State::connecting) {
          transport_->fail();
        }
        break;
      default:
        break;
    }
  }

  std::shared_ptr<FuzzTransport> transport_;
  std::shared_ptr<Socket> socket_;
  std::shared_ptr<Channel> lobby_;
  std::shared_ptr<Channel> second_;
  std::shared_ptr<Channel> other_;
  std::shared_ptr<Presence> presence_;
};

}  // namespace
}  // namespace vantor::realtime

extern "C" int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/) {
  vantor::fuzz::useFuzzerThreadAsLoop();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  vantor::fuzz::playSession<vantor::realtime::Session>(data, size, vantor::realtime::maxLines);
  return 0;
}
