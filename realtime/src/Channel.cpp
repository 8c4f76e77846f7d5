#include "vantor/realtime/Channel.hpp"

#include <bit>
#include <string_view>

#include "Guarded.hpp"
#include "Intervals.hpp"
#include "vantor/platform/Fatal.hpp"
#include "vantor/realtime/ChannelEvent.hpp"
#include "vantor/realtime/Push.hpp"
#include "vantor/realtime/Socket.hpp"
#include "vantor/realtime/TimeoutTimer.hpp"

namespace vantor::realtime {

namespace {
bool isConnected(const std::shared_ptr<Socket>& socket) { return socket && socket->isConnected(); }
}  // namespace

std::shared_ptr<Channel> Channel::make(std::string topic, Payload params,
                                       const std::shared_ptr<Socket>& socket) {
  // One allocation for the channel and its control block.
  struct Made : Channel {
    Made(std::string topic, Payload params, const std::shared_ptr<Socket>& socket)
        : Channel(std::move(topic), std::move(params), socket) {}
  };
  return platform::EventLoop::main().sync([&] {
    std::shared_ptr<Channel> channel =
        std::make_shared<Made>(std::move(topic), std::move(params), socket);
    channel->wire();
    return channel;
  });
}

Channel::Channel(std::string topic, Payload params, const std::shared_ptr<Socket>& socket)
    : topic_(std::move(topic)),
      params_(std::move(params)),
      socket_(socket),
      timeout_(socket ? socket->timeout() : Defaults::timeoutInterval) {}

Channel::~Channel() = default;

void Channel::wire() {
  auto self = shared_from_this();
  if (auto socket = socket_.lock()) {
    const auto onError = socket->delegateOnError<Channel>(
        self, [](Channel& channel, const TransportError&, const std::optional<HttpResponse>&) {
          channel.resetRejoinTimer();
        });
    const auto onOpen = socket->delegateOnOpen<Channel>(self, [](Channel& channel) {
      channel.resetRejoinTimer();
      if (channel.state_ == ChannelState::errored) {
        channel.rejoin();
      }
    });
    // The socket's references are decimal numbers; kept as such they take no
    // allocation of their own.
    stateChangeRefs_ = {std::stoull(onError), std::stoull(onOpen)};
    hasStateChangeRefs_ = true;
  }
  // The join push's "ok", "error" and "timeout" hooks are joinReplied(), and
  // the bindings with references 0 to 2 are runOwnBinding().
  joinPush_ = Push::make(self, std::string(ChannelEvent::join), params_, timeout_);
}

void Channel::joinReplied(const std::string& status) {
  if (status == "ok") {
    state_ = ChannelState::joined;
    resetRejoinTimer();
    if (extras_) {
      for (const auto& push : std::exchange(extras_->pushBuffer, {})) {
        push->send();
      }
    }
  } else if (status == "error") {
    state_ = ChannelState::errored;
    if (isConnected(socket_.lock())) {
      scheduleRejoin();
    }
  } else if (status == "timeout") {
    log("timeout " + topic_ + " " + joinRef().value_or("") + " after " +
        detail::shortestDecimal(timeout_) + "s");
    // Tell the server to drop the half-made membership.
    auto leavePush = Push::make(shared_from_this(), std::string(ChannelEvent::leave), Payload{}, timeout_);
    leavePush->send();
    state_ = ChannelState::errored;
    joinPush_->reset();
    if (isConnected(socket_.lock())) {
      scheduleRejoin();
    }
  }
}

void Channel::runOwnBinding(OwnBinding binding, const Message& message) {
  switch (binding) {
    case ownClose:
      resetRejoinTimer();
      log("close topic: " + topic_ + " joinRef: " + joinRef().value_or("nil"));
      state_ = ChannelState::closed;
      if (auto socket = socket_.lock()) {
        socket->remove(shared_from_this());
      }
      break;
    case ownError:
      log("error topic: " + topic_ + " joinRef: " + joinRef().value_or("nil") +
          " mesage: " + message.description());
      if (state_ == ChannelState::joining) {
        // Keep a stale queued join from going out on reconnect.
        if (auto socket = socket_.lock()) {
          socket->removeFromSendBuffer(joinRef());
        }
        joinPush_->reset();
      }
      state_ = ChannelState::errored;
      if (isConnected(socket_.lock())) {
        scheduleRejoin();
      }
      break;
    case ownReply:
      dispatch(replyEventName(message.ref()), message.sharedRawPayload(), message.ref(),
               message.joinRef());
      break;
  }
}

Channel::Extras& Channel::extras() {
  if (!extras_) {
    extras_ = std::make_unique<Extras>();
  }
  return *extras_;
}

void Channel::resetRejoinTimer() {
  if (extras_ && extras_->rejoinTimer) {
    extras_->rejoinTimer->reset();
  }
}

void Channel::scheduleRejoin() {
  auto& rejoinTimer = extras().rejoinTimer;
  if (!rejoinTimer) {
    auto self = shared_from_this();
    rejoinTimer = TimeoutTimer::make();
    rejoinTimer->callback.delegate(self, [](Channel& channel) {
      if (isConnected(channel.socket_.lock())) {
        channel.rejoin();
      }
    });
    rejoinTimer->timerCalculation.delegate(self, [](Channel& channel, const std::int64_t& tries) {
      auto socket = channel.socket_.lock();
      const double interval = socket ? socket->rejoinAfter(tries) : 5.0;
      detail::requireInterval("Socket rejoinAfter(" + std::to_string(tries) + ")", interval);
      return interval;
    });
  }
  rejoinTimer->scheduleTimeout();
}

std::shared_ptr<Push> Channel::join(std::optional<double> timeout) {
  if (timeout) {
    detail::requireInterval("Channel join timeout", *timeout);
  }
  return onLoop([&] {
    if (joinedOnce_) {
      platform::fatalError(
          "tried to join multiple times. 'join' can only be called a single time per channel "
          "instance");
    }
    if (timeout) {
      timeout_ = *timeout;
    }
    joinedOnce_ = true;
    rejoin();
    return joinPush_;
  });
}

void Channel::rejoin(std::optional<double> timeout) {
  onLoop([&] {
    if (state_ == ChannelState::leaving) {
      return;
    }
    if (auto socket = socket_.lock()) {
      socket->leaveOpenTopic(topic_);
    }
    sendJoin(timeout.value_or(timeout_));
  });
}

void Channel::sendJoin(double timeout) {
  onLoop([&] {
    if (std::exchange(joinSent_, true)) {
      if (auto socket = socket_.lock()) {
        socket->countRejoin();
      }
    }
    state_ = ChannelState::joining;
    joinPush_->resend(timeout);
  });
}

void Channel::socketDisconnected() {
  onLoop([&] {
    if (state_ != ChannelState::joined && state_ != ChannelState::joining) {
      return;
    }
    if (state_ == ChannelState::joining) {
      // Keep a stale queued join from going out on the next connection.
      if (auto socket = socket_.lock()) {
        socket->removeFromSendBuffer(joinRef());
      }
    }
    joinPush_->reset();
    resetRejoinTimer();
    state_ = ChannelState::errored;
  });
}

std::shared_ptr<Push> Channel::leave(double timeout) {
  detail::requireInterval("Channel leave timeout", timeout);
  return onLoop([&] {
    resetRejoinTimer();
    state_ = ChannelState::leaving;
    auto self = shared_from_this();
    auto leavePush = Push::make(self, std::string(ChannelEvent::leave), Payload{}, timeout);
    auto close = [](Channel& channel, const Message&) {
      channel.log("leave " + channel.topic_);
      channel.trigger(std::string(ChannelEvent::close), Payload{{"reason", "leave"}});
    };
    leavePush->delegateReceive<Channel>("ok", self, close)
        ->delegateReceive<Channel>("timeout", self, close);
    leavePush->send();
    // Without a way to reach the server, close locally at once.
    if (!canPush()) {
      leavePush->trigger("ok", Payload{});
    }
    return leavePush;
  });
}

std::shared_ptr<Push> Channel::push(const std::string& event, Payload payload, double timeout) {
  if (!joinedOnce_) {
    platform::fatalError("Tried to push " + event + " to " + topic_ +
                         " before joining. Use channel.join() before pushing events");
  }
  detail::requireInterval("Channel push timeout", timeout);
  // The push is made on the caller's thread; sending or buffering it is
  // queued onto the loop, so an application thread does not wait for a hop.
  auto push = Push::make(shared_from_this(), event, std::move(payload), timeout);
  platform::EventLoop::main().dispatch([self = shared_from_this(), push] {
    if (self->canPush()) {
      push->send();
    } else {
      push->startTimeout();
      self->extras().pushBuffer.push_back(push);
    }
  });
  return push;
}

std::int64_t Channel::bind(std::string event, Delegated<Message, void> callback) {
  return onLoop([&] {
    const std::int64_t ref = nextBindingRef();
    syncBindingsDel_.append(Binding{std::move(event), ref, std::move(callback)});
    return ref;
  });
}

std::int64_t Channel::nextBindingRef() {
  return bindingRef_++;  // 64 bits: a million a second lasts 292,000 years
}

std::int64_t Channel::on(const std::string& event, Callback callback) {
  Delegated<Message, void> delegated;
  delegated.manuallyDelegate(std::move(callback));
  return bind(event, std::move(delegated));
}

std::int64_t Channel::onClose(Callback callback) {
  return on(std::string(ChannelEvent::close), std::move(callback));
}

std::int64_t Channel::onError(Callback callback) {
  return on(std::string(ChannelEvent::error), std::move(callback));
}

std::optional<std::pair<Channel::OwnBinding, std::int64_t>> Channel::ownBindingOf(std::string_view event) {
  if (event == ChannelEvent::close) {
    return std::pair{ownClose, std::int64_t{0}};
  }
  if (event == ChannelEvent::error) {
    return std::pair{ownError, std::int64_t{1}};
  }
  if (event == ChannelEvent::reply) {
    return std::pair{ownReply, std::int64_t{2}};
  }
  return std::nullopt;
}

void Channel::off(const std::string& event, std::optional<std::int64_t> ref) {
  if (const auto own = ownBindingOf(event); own && (!ref || *ref == own->second)) {
    ownBindings_.fetch_and(static_cast<std::uint8_t>(~own->first));
  }
  syncBindingsDel_.remove(event, ref);
}

void Channel::bindReply(std::uint64_t number, Delegated<Message, void> callback) {
  syncBindingsDel_.appendReply(number, nextBindingRef(), std::move(callback));
}

void Channel::unbindReply(std::uint64_t number) { syncBindingsDel_.removeReply(number, std::nullopt); }

void Channel::onMessage(std::function<Message(const Message&)> callback) {
  onLoop([&] {
    if (callback || extras_) {
      extras().onMessage = callback ? std::make_shared<const MessageHook>(std::move(callback)) : nullptr;
    }
  });
}

bool Channel::isMember(const Message& message) const {
  return onLoop([&] {
    if (message.topic() != topic_) {
      return false;
    }
    const auto ownJoinRef = joinRef();
    if (message.joinRef() && message.joinRef() != ownJoinRef &&
        ChannelEvent::isLifecyleEvent(message.event())) {
      if (auto socket = socket_.lock()) {
        socket->logItems("channel", "dropping outdated message", message.topic(), message.event(),
                         message.rawPayload(), message.joinRef());
      }
      return false;
    }
    return true;
  });
}

void Channel::trigger(const Message& message) {
  onLoop([&] {
    dispatch(message.event(), message.sharedRawPayload(), message.ref(), message.joinRef());
  });
}

void Channel::trigger(const std::string& event, Payload payload, std::string ref,
                      std::optional<std::string> joinRef) {
  onLoop([&] {
    dispatch(event, std::make_shared<const Payload>(std::move(payload)), std::move(ref),
             std::move(joinRef));
  });
}

void Channel::dispatch(const std::string& event, std::shared_ptr<const Payload> payload,
                       std::string ref, std::optional<std::string> joinRef) {
  Message message(std::move(ref), joinRef ? std::move(joinRef) : this->joinRef(), topic_, event,
                  std::move(payload));
  auto socket = socket_.lock();
  // Held for the call: the hook may replace itself. A hook that throws
  // leaves the message as it was.
  if (const auto hook = extras_ ? extras_->onMessage : nullptr) {
    detail::guarded(socket.get(), "channel message hook", [&] { message = (*hook)(message); });
  }
  // Called on a snapshot, outside the binding list's lock: bindings may add
  // or remove bindings, which affects the next message, not this one.
  if (const auto number = ChannelBindings::replyNumber(event)) {
    for (const auto& callback : syncBindingsDel_.replyGroup(*number)) {
      detail::guarded(socket.get(), "channel binding", [&] { callback.call(message); });
    }
    return;
  }
  const auto own = ownBindingOf(event);
  const bool runOwn = own && (ownBindings_.load() & own->first) != 0;
  const auto bindings = syncBindingsDel_.group(event);
  if (runOwn) {
    detail::guarded(socket.get(), "channel binding", [&] {
      runOwnBinding(own->first, message);
    });
  }
  for (const auto& binding : *bindings) {
    detail::guarded(socket.get(), "channel binding", [&] { binding.callback.call(message); });
  }
}

std::string Channel::replyEventName(const std::string& ref) { return "chan_reply_" + ref; }

void Channel::log(const std::string& line) const {
  if (auto socket = socket_.lock()) {
    socket->logItems("channel", line);
  }
}

Payload Channel::params() const {
  return onLoop([&] { return params_; });
}
void Channel::setParams(Payload params) {
  onLoop([&] { params_ = std::move(params); });
}
std::shared_ptr<Socket> Channel::socket() const {
  return onLoop([&] { return socket_.lock(); });
}
ChannelState Channel::state() const {
  return onLoop([&] { return state_; });
}
double Channel::timeout() const {
  return onLoop([&] { return timeout_; });
}
void Channel::setTimeout(double seconds) {
  detail::requireInterval("Channel timeout", seconds);
  onLoop([&] { timeout_ = seconds; });
}
bool Channel::joinedOnce() const {
  return joinedOnce_;
}
std::shared_ptr<Push> Channel::joinPush() const {
  return onLoop([&] { return joinPush_; });
}
std::vector<std::shared_ptr<Push>> Channel::pushBuffer() const {
  return onLoop([&] { return extras_ ? extras_->pushBuffer : decltype(Extras::pushBuffer){}; });
}
std::vector<std::string> Channel::stateChangeRefs() const {
  return onLoop([&] {
    std::vector<std::string> refs;
    if (hasStateChangeRefs_) {
      for (const auto ref : stateChangeRefs_) {
        refs.push_back(std::to_string(ref));
      }
    }
    return refs;
  });
}
std::size_t Channel::bindingCount() const {
  return syncBindingsDel_.size() + static_cast<std::size_t>(std::popcount(ownBindings_.load()));
}
std::optional<std::string> Channel::joinRef() const {
  return onLoop([&] { return joinPush_ ? joinPush_->ref() : std::nullopt; });
}
bool Channel::canPush() const {
  return onLoop([&] { return isConnected(socket_.lock()) && state_ == ChannelState::joined; });
}

}  // namespace vantor::realtime
