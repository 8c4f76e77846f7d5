#include "vantor/realtime/Push.hpp"

#include <algorithm>

#include "Guarded.hpp"
#include "Intervals.hpp"
#include "PushTimeouts.hpp"
#include "vantor/platform/EventLoop.hpp"
#include "vantor/realtime/Channel.hpp"
#include "vantor/realtime/Socket.hpp"
#include "vantor/realtime/TimerQueue.hpp"

namespace vantor::realtime {

namespace {
template <class F>
auto onLoop(F&& work) {
  return platform::EventLoop::main().sync(std::forward<F>(work));
}
}  // namespace

std::shared_ptr<Push> Push::make(const std::shared_ptr<Channel>& channel, std::string event,
                                 Payload payload, double timeout) {
  detail::requireInterval("Push timeout", timeout);
  // One allocation for the push and its control block.
  struct Made : Push {
    Made(const std::shared_ptr<Channel>& channel, std::string event, Payload payload, double timeout)
        : Push(channel, std::move(event), std::move(payload), timeout) {}
  };
  return std::make_shared<Made>(channel, std::move(event), std::move(payload), timeout);
}

Push::Push(const std::shared_ptr<Channel>& channel, std::string event, Payload payload,
           double timeout)
    : channel_(channel), event_(std::move(event)), payload_(std::move(payload)), timeout_(timeout) {}

Push::~Push() = default;

void Push::send() {
  onLoop([&] {
    // A timed-out push is sent again only through resend().
    if (hasReceived("timeout")) {
      return;
    }
    startTimeout();
    sent_ = true;
    auto channel = channel_.lock();
    auto socket = channel ? channel->socket() : nullptr;
    if (!socket) {
      return;
    }
    socket->pushFrame(channel->topic(), event_, payload_, refText(), channel->joinRef());
  });
}

void Push::resend(double timeout) {
  detail::requireInterval("Push timeout", timeout);
  onLoop([&] {
    timeout_ = timeout;
    reset();
    send();
  });
}

std::shared_ptr<Push> Push::receive(const std::string& status, Hook callback) {
  Delegated<Message, void> delegated;
  delegated.manuallyDelegate(std::move(callback));
  return receive(status, std::move(delegated));
}

std::shared_ptr<Push> Push::receive(const std::string& status, Delegated<Message, void> delegated) {
  auto add = [self = shared_from_this(), status, delegated = std::move(delegated)]() mutable {
    if (self->receivedMessage_ && self->receivedMessage_->status() == status) {
      auto channel = self->channel_.lock();
      auto socket = channel ? channel->socket() : nullptr;
      detail::guarded(socket.get(), "push hook", [&] { delegated.call(*self->receivedMessage_); });
    }
    auto hooks = std::find_if(self->receiveHooks_.begin(), self->receiveHooks_.end(),
                              [&](const auto& entry) { return entry.first == status; });
    if (hooks == self->receiveHooks_.end()) {
      hooks = self->receiveHooks_.insert(hooks, {status, {}});
    }
    hooks->second.push_back(std::move(delegated));
  };
  // Off the loop the hook is queued in order behind the push itself, and the
  // caller does not wait; once a reply is in, it waits, so that a hook added
  // after the reply has run with it when this returns.
  if (hasReply_.load(std::memory_order_acquire)) {
    onLoop(add);
  } else {
    platform::EventLoop::main().dispatch(std::move(add));
  }
  return shared_from_this();
}

void Push::reset() {
  onLoop([&] {
    removeReplyBinding();
    hasRef_ = false;
    receivedMessage_.reset();
    hasReply_ = false;
    sent_ = false;
  });
}

void Push::cancelTimeout() {
  onLoop([&] {
    if (timeoutArmed_) {
      // Withdrawing releases the time-out's hold on this push.
      auto self = shared_from_this();
      detail::PushTimeouts::main().withdraw(timeoutKey_);
      timeoutArmed_ = false;
    }
  });
}

void Push::startTimeout() {
  onLoop([&] {
    cancelTimeout();
    auto channel = channel_.lock();
    auto socket = channel ? channel->socket() : nullptr;
    if (!socket) {
      return;
    }
    // A push buffered while its channel was joining took a reference then;
    // its binding for that reference goes before it takes a new one.
    removeReplyBinding();
    ref_ = socket->makeRefNumber();
    hasRef_ = true;
    Delegated<Message, void> replied;
    replied.delegate(shared_from_this(), [](Push& push, const Message& message) { push.replied(message); });
    channel->bindReply(ref_, std::move(replied));
    timeoutKey_ = detail::PushTimeouts::main().arm(TimerQueue::milliseconds(timeout_), shared_from_this());
    timeoutArmed_ = true;
  });
}

void Push::replied(const Message& message) {
  // The binding goes first, so that a reply is handled once.
  removeReplyBinding();
  cancelTimeout();
  receivedMessage_ = std::make_unique<const Message>(message);
  hasReply_ = true;
  auto channel = channel_.lock();
  auto socket = channel ? channel->socket() : nullptr;
  if (auto status = message.status()) {
    if (socket) {
      socket->countPushOutcome(*status);
    }
    matchReceive(*status, message, socket.get());
  }
  if (outcomeHooks_) {
    auto hooks = outcomeHooks_->hooks;  // a hook may withdraw itself
    for (const auto& [ref, hook] : hooks) {
      detail::guarded(socket.get(), "push hook", [&] { hook(message); });
    }
  }
}

std::int64_t Push::onOutcome(Hook callback) {
  return onLoop([&] {
    if (!outcomeHooks_) {
      outcomeHooks_ = std::make_unique<OutcomeHooks>();
    }
    const std::int64_t ref = ++outcomeHooks_->lastRef;
    outcomeHooks_->hooks.emplace_back(ref, callback);
    if (receivedMessage_) {
      auto channel = channel_.lock();
      auto socket = channel ? channel->socket() : nullptr;
      detail::guarded(socket.get(), "push hook", [&] { callback(*receivedMessage_); });
    }
    return ref;
  });
}

void Push::withdrawOutcomeHook(std::int64_t ref) {
  onLoop([&] {
    if (outcomeHooks_) {
      std::erase_if(outcomeHooks_->hooks, [ref](const auto& entry) { return entry.first == ref; });
    }
  });
}

bool Push::hasReceived(const std::string& status) const {
  return onLoop([&] { return receivedMessage_ && receivedMessage_->status() == status; });
}

void Push::trigger(const std::string& status, Payload payload) {
  onLoop([&] {
    if (!hasRef_) {
      return;
    }
    payload["status"] = status;
    if (auto channel = channel_.lock()) {
      channel->trigger(Channel::replyEventName(std::to_string(ref_)), std::move(payload), "", std::nullopt);
    }
  });
}

std::optional<std::string> Push::refText() const {
  return hasRef_ ? std::optional<std::string>(std::to_string(ref_)) : std::nullopt;
}

void Push::removeReplyBinding() {
  if (!hasRef_) {
    return;
  }
  if (auto channel = channel_.lock()) {
    channel->unbindReply(ref_);
  }
}

void Push::matchReceive(const std::string& status, const Message& message, Socket* socket) {
  // A channel's join push runs the channel's own hooks first: they were
  // the first added.
  if (auto channel = channel_.lock(); channel && channel->joinPush_.get() == this) {
    detail::guarded(socket, "push hook", [&] { channel->joinReplied(status); });
  }
  auto found = std::find_if(receiveHooks_.begin(), receiveHooks_.end(),
                            [&](const auto& entry) { return entry.first == status; });
  if (found == receiveHooks_.end()) {
    return;
  }
  // A hook may add hooks, which this reply does not run. Hooks and statuses
  // are only ever appended, so the first `count` hooks of the status stay
  // where they are; each is held while it runs.
  const auto statusIndex = static_cast<std::size_t>(found - receiveHooks_.begin());
  const auto count = found->second.size();
  for (std::size_t i = 0; i < count; ++i) {
    const auto hook = receiveHooks_[statusIndex].second[i];
    detail::guarded(socket, "push hook", [&] { hook.call(message); });
  }
}

std::shared_ptr<Channel> Push::channel() const {
  return onLoop([&] { return channel_.lock(); });
}
Payload Push::payload() const {
  return onLoop([&] { return payload_; });
}
void Push::setPayload(Payload payload) {
  onLoop([&] { payload_ = std::move(payload); });
}
double Push::timeout() const {
  return onLoop([&] { return timeout_; });
}
void Push::setTimeout(double seconds) {
  detail::requireInterval("Push timeout", seconds);
  onLoop([&] { timeout_ = seconds; });
}
std::optional<Message> Push::receivedMessage() const {
  return onLoop([&] { return receivedMessage_ ? std::optional<Message>(*receivedMessage_) : std::nullopt; });
}
bool Push::sent() const {
  return onLoop([&] { return sent_; });
}
std::optional<std::string> Push::ref() const {
  return onLoop([&] { return refText(); });
}
std::optional<std::string> Push::refEvent() const {
  return onLoop([&]() -> std::optional<std::string> {
    if (!hasRef_) {
      return std::nullopt;
    }
    return Channel::replyEventName(std::to_string(ref_));
  });
}

}  // namespace vantor::realtime
