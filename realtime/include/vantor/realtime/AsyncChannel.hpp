#pragma once

// Asynchronous channel operations that take an Asio completion token, so
// that one interface serves callbacks, futures and C++20 coroutines:
//
//   auto reply = co_await asyncJoin(channel, boost::asio::use_awaitable);
//   auto echo = co_await asyncPush(channel, "echo", {{"body", "hi"}}, boost::asio::use_awaitable);
//
// Each completes once with (error_code, Message): no error and the reply
// for "ok"; `ReplyError::error`, `ReplyError::timeout` or `ReplyError::other`
// with the reply (or the local time-out message) otherwise; and
// `boost::asio::error::operation_aborted` with an empty message when
// cancelled. With `use_awaitable` an error is thrown as
// `boost::system::system_error`.
//
// They are layered over the callback interface: each adds one hook (or one
// binding) and removes it when it completes. Cancellation through the
// token's cancellation slot (any type) removes that hook and nothing else:
// the push still goes out, and its other hooks still run.
//
// The completion handler runs on its associated executor (the main event
// loop when it has none), never inside the client's own call stack.

#include <boost/asio/associated_cancellation_slot.hpp>
#include <boost/asio/associated_executor.hpp>
#include <boost/asio/async_result.hpp>
#include <boost/asio/error.hpp>
#include <boost/asio/executor_work_guard.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/post.hpp>
#include <boost/system/error_code.hpp>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <utility>

#include "vantor/platform/EventLoop.hpp"
#include "vantor/realtime/Channel.hpp"
#include "vantor/realtime/Defaults.hpp"
#include "vantor/realtime/Message.hpp"
#include "vantor/realtime/Payload.hpp"
#include "vantor/realtime/Push.hpp"
#include "vantor/realtime/ReplyError.hpp"

namespace vantor::realtime {

/// The completion signature of every operation below.
using ReplySignature = void(boost::system::error_code, Message);

namespace detail {

/// The error for a reply or time-out message of a push.
inline boost::system::error_code replyErrorOf(const Message& message) {
  const auto status = message.status();
  if (status == "ok") {
    return {};
  }
  if (status == "error") {
    return ReplyError::error;
  }
  if (status == "timeout") {
    return ReplyError::timeout;
  }
  return ReplyError::other;
}

/// One pending operation: its handler, completed at most once from the loop
/// thread (a reply) or from the thread that emits a cancellation.
template <class Handler>
class PendingReply : public std::enable_shared_from_this<PendingReply<Handler>> {
 public:
  using Executor =
      boost::asio::associated_executor_t<Handler, boost::asio::io_context::executor_type>;

  explicit PendingReply(Handler handler)
      : work_(boost::asio::make_work_guard(boost::asio::get_associated_executor(
            handler, platform::EventLoop::main().context().get_executor()))),
        handler_(std::move(handler)) {}

  /// Connects the handler's cancellation slot, if it has one, so that a
  /// cancellation completes the operation and then runs `withdraw`.
  template <class Withdraw>
  void onCancellation(Withdraw withdraw, std::string topic) {
    auto slot = boost::asio::get_associated_cancellation_slot(*handler_);
    if (!slot.is_connected()) {
      return;
    }
    slot.assign([self = this->shared_from_this(), withdraw = std::move(withdraw),
                 topic = std::move(topic)](boost::asio::cancellation_type) mutable {
      if (self->complete(boost::asio::error::operation_aborted,
                         Message("", std::nullopt, topic, "", Payload{}))) {
        withdraw();
      }
    });
  }

  /// Hands the result to the handler's executor; false when the operation
  /// had already completed.
  bool complete(boost::system::error_code error, Message message) {
    std::optional<Handler> handler;
    std::optional<boost::asio::executor_work_guard<Executor>> work;
    {
      std::lock_guard lock(mutex_);
      if (!handler_) {
        return false;
      }
      handler.emplace(std::move(*handler_));
      handler_.reset();
      work.emplace(std::move(*work_));
      work_.reset();
    }
    auto executor = work->get_executor();
    boost::asio::post(executor, [handler = std::move(*handler), work = std::move(*work), error,
                                 message = std::move(message)]() mutable {
      // On the handler's executor, where cancellations are emitted too.
      boost::asio::get_associated_cancellation_slot(handler).clear();
      std::move(handler)(error, std::move(message));
    });
    return true;
  }

  [[nodiscard]] bool completed() const {
    std::lock_guard lock(mutex_);
    return !handler_.has_value();
  }

 private:
  mutable std::mutex mutex_;
  std::optional<boost::asio::executor_work_guard<Executor>> work_;
  std::optional<Handler> handler_;
};

/// Completes `pending` with the first outcome of `push`.
template <class Handler>
void completeWithOutcome(const std::shared_ptr<PendingReply<Handler>>& pending,
                         const std::shared_ptr<Push>& push, const std::string& topic) {
  // The hook's reference, known once the hook is added on the loop.
  auto hookRef = std::make_shared<std::optional<std::int64_t>>();
  pending->onCancellation(
      [push, hookRef] {
        platform::EventLoop::main().dispatch([push, hookRef] {
          if (*hookRef) {
            push->withdrawOutcomeHook(**hookRef);
          }
        });
      },
      topic);
  platform::EventLoop::main().dispatch([pending, push, hookRef] {
    if (pending->completed()) {
      return;  // cancelled before it started
    }
    const std::weak_ptr<Push> weakPush = push;
    *hookRef = push->onOutcome([pending, weakPush, hookRef](const Message& message) {
      if (pending->complete(replyErrorOf(message), message) && *hookRef) {
        if (auto push = weakPush.lock()) {
          push->withdrawOutcomeHook(**hookRef);
        }
      }
    });
    if (pending->completed()) {
      push->withdrawOutcomeHook(**hookRef);  // the reply was there already
    }
  });
}

/// Starts the push that `makePush` makes on `channel` and completes with
/// its first outcome.
template <class CompletionToken, class MakePush>
auto asyncOutcome(CompletionToken&& token, std::shared_ptr<Channel> channel, MakePush makePush) {
  return boost::asio::async_initiate<CompletionToken, ReplySignature>(
      [channel = std::move(channel), makePush = std::move(makePush)](auto handler) mutable {
        auto pending = std::make_shared<PendingReply<decltype(handler)>>(std::move(handler));
        completeWithOutcome(pending, makePush(*channel), channel->topic());
      },
      token);
}

}  // namespace detail

/// Joins `channel` (see `Channel::join`; a second join stops the process)
/// and completes with the join's first outcome.
template <class CompletionToken>
auto asyncJoin(std::shared_ptr<Channel> channel, CompletionToken&& token,
               std::optional<double> timeout = std::nullopt) {
  return detail::asyncOutcome(std::forward<CompletionToken>(token), std::move(channel),
                              [timeout](Channel& channel) { return channel.join(timeout); });
}

/// Pushes `event` with `payload` (see `Channel::push`) and completes with
/// its reply or time-out.
template <class CompletionToken>
auto asyncPush(std::shared_ptr<Channel> channel, std::string event, Payload payload,
               CompletionToken&& token, double timeout = Defaults::timeoutInterval) {
  return detail::asyncOutcome(std::forward<CompletionToken>(token), std::move(channel),
                              [event = std::move(event), payload = std::move(payload), timeout](
                                  Channel& channel) mutable { return channel.push(event, std::move(payload), timeout); });
}

/// Leaves `channel` (see `Channel::leave`) and completes with the leave's
/// reply or time-out.
template <class CompletionToken>
auto asyncLeave(std::shared_ptr<Channel> channel, CompletionToken&& token,
                double timeout = Defaults::timeoutInterval) {
  return detail::asyncOutcome(std::forward<CompletionToken>(token), std::move(channel),
                              [timeout](Channel& channel) { return channel.leave(timeout); });
}

/// Completes with the next message of `event` that reaches the channel's
/// bindings (a broadcast or a push from the server), never with an error
/// other than a cancellation.
template <class CompletionToken>
auto asyncReceive(std::shared_ptr<Channel> channel, std::string event, CompletionToken&& token) {
  return boost::asio::async_initiate<CompletionToken, ReplySignature>(
      [channel = std::move(channel), event = std::move(event)](auto handler) {
        auto pending = std::make_shared<detail::PendingReply<decltype(handler)>>(std::move(handler));
        auto bindingRef = std::make_shared<std::optional<std::int64_t>>();
        const std::weak_ptr<Channel> weakChannel = channel;
        pending->onCancellation(
            [weakChannel, event, bindingRef] {
              platform::EventLoop::main().dispatch([weakChannel, event, bindingRef] {
                auto channel = weakChannel.lock();
                if (channel && *bindingRef) {
                  channel->off(event, **bindingRef);
                }
              });
            },
            channel->topic());
        platform::EventLoop::main().dispatch([pending, channel, weakChannel, event, bindingRef] {
          if (pending->completed()) {
            return;
          }
          *bindingRef = channel->on(event, [pending, weakChannel, event, bindingRef](const Message& message) {
            if (pending->complete({}, message) && *bindingRef) {
              if (auto channel = weakChannel.lock()) {
                channel->off(event, **bindingRef);
              }
            }
          });
        });
      },
      token);
}

}  // namespace vantor::realtime
