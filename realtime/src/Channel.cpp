#include "vantor/realtime/Channel.hpp"

#include <limits>

#include "Guarded.hpp"
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
  return platform::EventLoop::main().sync([&] {
    auto channel =
        std::shared_ptr<Channel>(new Channel(std::move(topic), std::move(params), socket));
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

  rejoinTimer_ = TimeoutTimer::make();
  rejoinTimer_->callback.delegate(self, [](Channel& channel) {
    if (isConnected(channel.socket_.lock())) {
      channel.rejoin();
    }
  });
  rejoinTimer_->timerCalculation.delegate(self, [](Channel& channel, const int& tries) {
    auto socket = channel.socket_.lock();
    return socket ? socket->rejoinAfter(tries) : 5.0;
  });

  if (auto socket = socket_.lock()) {
    stateChangeRefs_.push_back(socket->delegateOnError<Channel>(
        self, [](Channel& channel, const TransportError&, const std::optional<HttpResponse>&) {
          channel.rejoinTimer_->reset();
        }));
    stateChangeRefs_.push_back(socket->delegateOnOpen<Channel>(self, [](Channel& channel) {
      channel.rejoinTimer_->reset();
      if (channel.state_ == ChannelState::errored) {
        channel.rejoin();
      }
    }));
  }

  joinPush_ = Push::make(self, std::string(ChannelEvent::join), params_, timeout_);
  joinPush_->delegateReceive<Channel>("ok", self, [](Channel& channel, const Message&) {
    channel.state_ = ChannelState::joined;
    channel.rejoinTimer_->reset();
    for (const auto& push : std::exchange(channel.pushBuffer_, {})) {
      push->send();
    }
  });
  joinPush_->delegateReceive<Channel>("error", self, [](Channel& channel, const Message&) {
    channel.state_ = ChannelState::errored;
    if (isConnected(channel.socket_.lock())) {
      channel.rejoinTimer_->scheduleTimeout();
    }
  });
  joinPush_->delegateReceive<Channel>("timeout", self, [](Channel& channel, const Message&) {
    channel.log("timeout " + channel.topic_ + " " + channel.joinRef().value_or("") + " after " +
                detail::shortestDecimal(channel.timeout_) + "s");
    // Tell the server to drop the half-made membership.
    auto leavePush = Push::make(channel.shared_from_this(), std::string(ChannelEvent::leave),
                                Payload{}, channel.timeout_);
    leavePush->send();
    channel.state_ = ChannelState::errored;
    channel.joinPush_->reset();
    if (isConnected(channel.socket_.lock())) {
      channel.rejoinTimer_->scheduleTimeout();
    }
  });

  delegateOnClose<Channel>(self, [](Channel& channel, const Message&) {
    channel.rejoinTimer_->reset();
    channel.log("close topic: " + channel.topic_ + " joinRef: " + channel.joinRef().value_or("nil"));
    channel.state_ = ChannelState::closed;
    if (auto socket = channel.socket_.lock()) {
      socket->remove(channel.shared_from_this());
    }
  });
  delegateOnError<Channel>(self, [](Channel& channel, const Message& message) {
    channel.log("error topic: " + channel.topic_ + " joinRef: " + channel.joinRef().value_or("nil") +
                " mesage: " + message.description());
    if (channel.state_ == ChannelState::joining) {
      // Keep a stale queued join from going out on reconnect.
      if (auto socket = channel.socket_.lock()) {
        socket->removeFromSendBuffer(channel.joinRef());
      }
      channel.joinPush_->reset();
    }
    channel.state_ = ChannelState::errored;
    if (isConnected(channel.socket_.lock())) {
      channel.rejoinTimer_->scheduleTimeout();
    }
  });
  delegateOn<Channel>(std::string(ChannelEvent::reply), self, [](Channel& channel, const Message& message) {
    channel.dispatch(replyEventName(message.ref()), message.sharedRawPayload(), message.ref(),
                     message.joinRef());
  });
}

std::shared_ptr<Push> Channel::join(std::optional<double> timeout) {
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
    rejoinTimer_->reset();
    state_ = ChannelState::errored;
  });
}

std::shared_ptr<Push> Channel::leave(double timeout) {
  return onLoop([&] {
    rejoinTimer_->reset();
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
  // The push is made on the caller's thread; sending or buffering it is
  // queued onto the loop, so an application thread does not wait for a hop.
  auto push = Push::make(shared_from_this(), event, std::move(payload), timeout);
  platform::EventLoop::main().dispatch([self = shared_from_this(), push] {
    if (self->canPush()) {
      push->send();
    } else {
      push->startTimeout();
      self->pushBuffer_.push_back(push);
    }
  });
  return push;
}

int Channel::bind(std::string event, Delegated<Message, void> callback) {
  return onLoop([&] {
    if (bindingRef_ == std::numeric_limits<int>::max()) {
      platform::fatalError("Channel binding references overflowed");
    }
    const int ref = bindingRef_++;
    auto key = event;
    syncBindingsDel_.append(key, Binding{std::move(event), ref, std::move(callback)});
    return ref;
  });
}

int Channel::on(const std::string& event, Callback callback) {
  Delegated<Message, void> delegated;
  delegated.manuallyDelegate(std::move(callback));
  return bind(event, std::move(delegated));
}

int Channel::onClose(Callback callback) {
  return on(std::string(ChannelEvent::close), std::move(callback));
}

int Channel::onError(Callback callback) {
  return on(std::string(ChannelEvent::error), std::move(callback));
}

void Channel::off(const std::string& event, std::optional<int> ref) {
  syncBindingsDel_.removeAll(event, [&](const Binding& binding) { return !ref || binding.ref == *ref; });
}

void Channel::onMessage(std::function<Message(const Message&)> callback) {
  onLoop([&] {
    onMessage_ = callback ? std::make_shared<const MessageHook>(std::move(callback)) : nullptr;
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
  if (const auto hook = onMessage_) {
    detail::guarded(socket.get(), "channel message hook", [&] { message = (*hook)(message); });
  }
  // Called on a snapshot, outside the binding list's lock: bindings may add
  // or remove bindings, which affects the next message, not this one.
  const auto bindings = syncBindingsDel_.group(event);
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
  onLoop([&] { timeout_ = seconds; });
}
bool Channel::joinedOnce() const {
  return joinedOnce_;
}
std::shared_ptr<Push> Channel::joinPush() const {
  return onLoop([&] { return joinPush_; });
}
std::vector<std::shared_ptr<Push>> Channel::pushBuffer() const {
  return onLoop([&] { return pushBuffer_; });
}
std::vector<std::string> Channel::stateChangeRefs() const {
  return onLoop([&] { return stateChangeRefs_; });
}
std::size_t Channel::bindingCount() const { return syncBindingsDel_.size(); }
std::optional<std::string> Channel::joinRef() const {
  return onLoop([&] { return joinPush_ ? joinPush_->ref() : std::nullopt; });
}
bool Channel::canPush() const {
  return onLoop([&] { return isConnected(socket_.lock()) && state_ == ChannelState::joined; });
}

}  // namespace vantor::realtime
