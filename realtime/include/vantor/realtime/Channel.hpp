#pragma once

#include <array>
#include <atomic>
#include <concepts>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "vantor/platform/EventLoop.hpp"
#include "vantor/realtime/Binding.hpp"
#include "vantor/realtime/ChannelBindings.hpp"
#include "vantor/realtime/ChannelState.hpp"
#include "vantor/realtime/Defaults.hpp"
#include "vantor/realtime/Message.hpp"
#include "vantor/realtime/Payload.hpp"

namespace vantor::realtime {

class Push;
class Socket;
class TimeoutTimer;

/// The client's membership in one topic over a shared socket.
///
/// `join()` sends "phx_join" with the channel's parameters once; after
/// errors, join time-outs and reconnections the channel rejoins by itself on
/// the socket's rejoin back-off. Pushes made while the channel cannot push
/// are buffered and sent once the join succeeds. Incoming messages are
/// dispatched to event bindings; replies reach the push waiting for them.
/// Lifecycle messages that carry another join's reference are dropped as
/// outdated. A channel joins once: after it is closed, make a new one.
///
/// Make channels with `Socket::channel`; the socket keeps them registered
/// until they close. A channel holds its socket weakly.
///
/// Thread safety: every public member may be called from any thread; the
/// work runs on the main event loop, and bindings are called there.
class Channel : public std::enable_shared_from_this<Channel> {
 public:
  using Callback = std::function<void(const Message&)>;

  /// Normally called by `Socket::channel`.
  static std::shared_ptr<Channel> make(std::string topic, Payload params,
                                       const std::shared_ptr<Socket>& socket);
  ~Channel();
  Channel(const Channel&) = delete;
  Channel& operator=(const Channel&) = delete;

  /// Joins the topic; returns the join push, for its "ok", "error" and
  /// "timeout" hooks. A second call stops the process.
  std::shared_ptr<Push> join(std::optional<double> timeout = std::nullopt);
  /// Leaves the topic and closes the channel once the server answers, the
  /// leave times out, or at once when the channel cannot push.
  std::shared_ptr<Push> leave(double timeout = Defaults::timeoutInterval);
  /// Pushes an application event, or buffers it until the channel is
  /// joined. Pushing before `join()` stops the process. Called off the
  /// loop, the push is queued onto it and the call returns without waiting;
  /// later calls from the same thread are queued behind it, so a read made
  /// afterwards sees it.
  std::shared_ptr<Push> push(const std::string& event, Payload payload,
                             double timeout = Defaults::timeoutInterval);

  /// Adds a binding for `event`; returns its reference (the application's
  /// first binding gets 3). The callback is held strongly.
  std::int64_t on(const std::string& event, Callback callback);
  /// As `on`, holding `owner` weakly.
  template <class Owner, std::invocable<Owner&, const Message&> F>
  std::int64_t delegateOn(const std::string& event, const std::shared_ptr<Owner>& owner,
                          F callback);
  std::int64_t onClose(Callback callback);
  template <class Owner, std::invocable<Owner&, const Message&> F>
  std::int64_t delegateOnClose(const std::shared_ptr<Owner>& owner,
                      F callback) {
    return delegateOn("phx_close", owner, std::move(callback));
  }
  std::int64_t onError(Callback callback);
  template <class Owner, std::invocable<Owner&, const Message&> F>
  std::int64_t delegateOnError(const std::shared_ptr<Owner>& owner,
                      F callback) {
    return delegateOn("phx_error", owner, std::move(callback));
  }
  /// Removes the bindings of `event`, or only the one with `ref`. Without
  /// `ref` the channel's own bindings of that event go too.
  void off(const std::string& event, std::optional<std::int64_t> ref = std::nullopt);
  /// Sets a hook that may rewrite every message before bindings see it.
  void onMessage(std::function<Message(const Message&)> callback);

  [[nodiscard]] const std::string& topic() const noexcept { return topic_; }
  [[nodiscard]] Payload params() const;
  void setParams(Payload params);
  [[nodiscard]] std::shared_ptr<Socket> socket() const;
  [[nodiscard]] ChannelState state() const;
  [[nodiscard]] double timeout() const;
  void setTimeout(double seconds);
  [[nodiscard]] bool joinedOnce() const;
  [[nodiscard]] std::shared_ptr<Push> joinPush() const;
  /// The reference of the join push; absent before the first join and after
  /// the join push was reset.
  [[nodiscard]] std::optional<std::string> joinRef() const;
  /// Whether the socket is connected and the channel joined.
  [[nodiscard]] bool canPush() const;
  [[nodiscard]] bool isClosed() const { return state() == ChannelState::closed; }
  [[nodiscard]] bool isErrored() const { return state() == ChannelState::errored; }
  [[nodiscard]] bool isJoined() const { return state() == ChannelState::joined; }
  [[nodiscard]] bool isJoining() const { return state() == ChannelState::joining; }
  [[nodiscard]] bool isLeaving() const { return state() == ChannelState::leaving; }

  // --- Steps the client's own types call on each other --------------------
  // Sockets, channels, pushes and presence work together through these.
  // They are public because they are part of the documented interface; an
  // application has no need to call them.

  /// Whether the socket should hand `message` to this channel.
  [[nodiscard]] bool isMember(const Message& message) const;
  /// Dispatches an incoming message to the bindings of its event.
  void trigger(const Message& message);
  /// Builds a message on this channel's topic and dispatches it. Without a
  /// join reference the channel's own is used.
  void trigger(const std::string& event, Payload payload, std::string ref = {},
               std::optional<std::string> joinRef = std::nullopt);
  /// Sends the join again (also used by the rejoin timer and the socket).
  void rejoin(std::optional<double> timeout = std::nullopt);
  /// Sets the state to joining and resends the join push.
  void sendJoin(double timeout);
  /// Called by the socket when the application disconnects it: a joined or
  /// joining channel goes `errored` without calling its "phx_error"
  /// bindings, and joins again under a new join reference once the socket
  /// opens. Pushes made meanwhile wait for that join.
  void socketDisconnected();
  /// "chan_reply_" followed by `ref`.
  static std::string replyEventName(const std::string& ref);
  [[nodiscard]] std::vector<std::shared_ptr<Push>> pushBuffer() const;
  [[nodiscard]] std::vector<std::string> stateChangeRefs() const;
  /// The bindings registered now, over all events, the channel's own and
  /// each waiting push's included. For diagnostics: a count that keeps
  /// growing means hooks that are never withdrawn.
  [[nodiscard]] std::size_t bindingCount() const;

 private:
  friend class Push;
  friend struct ChannelTestAccess;

  // The channel's own bindings, made at construction with references 0, 1
  // and 2. They are kept as flags rather than stored callbacks: every
  // channel has them, and they run before any binding added later.
  enum OwnBinding : std::uint8_t { ownClose = 1, ownError = 2, ownReply = 4 };

  Channel(std::string topic, Payload params, const std::shared_ptr<Socket>& socket);
  void wire();
  void dispatch(const std::string& event, std::shared_ptr<const Payload> payload, std::string ref,
                std::optional<std::string> joinRef);
  void log(const std::string& line) const;
  std::int64_t bind(std::string event, Delegated<Message, void> callback);
  std::int64_t nextBindingRef();
  // A push's binding of its reply event, by the reference's number.
  void bindReply(std::uint64_t number, Delegated<Message, void> callback);
  void unbindReply(std::uint64_t number);
  // The channel's own binding of `event` and its reference, if it has one.
  static std::optional<std::pair<OwnBinding, std::int64_t>> ownBindingOf(std::string_view event);
  void runOwnBinding(OwnBinding binding, const Message& message);
  // The join push's own hooks; they run before the hooks added to it later.
  void joinReplied(const std::string& status);
  void resetRejoinTimer();
  void scheduleRejoin();

  template <class F>
  auto onLoop(F&& work) const {
    return platform::EventLoop::main().sync(std::forward<F>(work));
  }

  // Everything below, but the bindings, lives on the main loop. The small
  // fields sit together, so that a channel carries no padding between them.
  const std::string topic_;
  Payload params_;
  std::weak_ptr<Socket> socket_;
  ChannelState state_ = ChannelState::closed;
  std::atomic<std::uint8_t> ownBindings_{ownClose | ownError | ownReply};
  std::atomic<bool> joinedOnce_{false};  // also read by push() off the loop
  bool joinSent_ = false;                // a later join counts as a rejoin
  bool hasStateChangeRefs_ = false;      // none without a socket
  std::int64_t bindingRef_ = 3;
  double timeout_;
  // Bindings by event: a reply reaches its push without walking the
  // bindings of other events.
  ChannelBindings syncBindingsDel_;
  std::shared_ptr<Push> joinPush_;
  // The references of the socket's error and open callbacks made for this
  // channel.
  std::array<std::uint64_t, 2> stateChangeRefs_{};
  using MessageHook = std::function<Message(const Message&)>;
  // What many channels never need, made at its first use: a joined channel
  // that never errored carries none of it.
  struct Extras {
    std::vector<std::shared_ptr<Push>> pushBuffer;
    std::shared_ptr<TimeoutTimer> rejoinTimer;
    std::shared_ptr<const MessageHook> onMessage;  // none: messages pass unchanged
  };
  std::unique_ptr<Extras> extras_;
  Extras& extras();
};

template <class Owner, std::invocable<Owner&, const Message&> F>
std::int64_t Channel::delegateOn(const std::string& event, const std::shared_ptr<Owner>& owner,
                                 F callback) {
  Delegated<Message, void> delegated;
  delegated.delegate(owner, std::move(callback));
  return bind(event, std::move(delegated));
}

}  // namespace vantor::realtime
