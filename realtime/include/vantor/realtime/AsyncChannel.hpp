#pragma once

// Asynchronous channel operations that take an Asio completion token, so
// that one interface serves callbacks, futures and C++20 coroutines
// (examples/coroutine.cpp is a complete program):
//
//   Message reply = co_await asyncJoin(channel, boost::asio::use_awaitable);
//   const Payload hello{{"body", "hi"}};  // named: GCC 12 cannot brace-initialise an argument inside co_await
//   Message echo = co_await asyncPush(channel, "echo", hello, boost::asio::use_awaitable);
//
// Each completes exactly once: with the reply for "ok"; with
// `ReplyError::error`, `ReplyError::timeout` or `ReplyError::other` and the
// reply (or a local time-out message) otherwise; and with
// `boost::asio::error::operation_aborted` and an empty message when
// cancelled. Joins, pushes and leaves complete within their time-out
// whatever the connection does: unreachable, dropping, or closed by
// `disconnect()`. Callbacks and `as_tuple` get (error_code, Message);
// `use_awaitable` and `use_future` throw a `ReplyException` instead, whose
// `what()` gives the server's "reason" and whose `reply()` is the reply.
//
// They are layered over the callback interface: each adds one hook (or one
// binding) and removes it when it completes. Cancellation through the
// token's cancellation slot (any type) removes that hook and nothing else:
// the push still goes out, and its other hooks still run.
//
// The completion handler runs on its associated executor (the main event
// loop when it has none), never inside the client's own call stack. A
// coroutine spawned on `EventLoop::main().context()` therefore resumes on
// the loop thread, where the client's callbacks run too.

#include <boost/asio/associated_cancellation_slot.hpp>
#include <boost/asio/associated_executor.hpp>
#include <boost/asio/async_result.hpp>
#include <boost/asio/error.hpp>
#include <boost/asio/executor_work_guard.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/system/error_code.hpp>
#include <chrono>
#include <exception>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <type_traits>
#include <utility>

#include "vantor/platform/EventLoop.hpp"
#include "vantor/realtime/Channel.hpp"
#include "vantor/realtime/Defaults.hpp"
#include "vantor/realtime/Message.hpp"
#include "vantor/realtime/Payload.hpp"
#include "vantor/realtime/Push.hpp"
#include "vantor/realtime/ReplyError.hpp"
#include "vantor/realtime/ReplyException.hpp"

namespace boost::asio {
// The tokens that turn a failure into an exception; declared here so that
// this header does not pull in coroutine and future support.
template <class Executor>
struct use_awaitable_t;
template <class Allocator>
class use_future_t;
}  // namespace boost::asio

namespace vantor::realtime {

/// The completion signature of every operation below, except through
/// `use_awaitable` and `use_future`: those get `ThrowingReplySignature`, so
/// that a failure is thrown as a `ReplyException` that tells the server's
/// reason and carries its reply.
using ReplySignature = void(boost::system::error_code, Message);
using ThrowingReplySignature = void(std::exception_ptr, Message);

namespace detail {

template <class Token>
struct ThrowsReplies : std::false_type {};
template <class Executor>
struct ThrowsReplies<boost::asio::use_awaitable_t<Executor>> : std::true_type {};
template <class Allocator>
struct ThrowsReplies<boost::asio::use_future_t<Allocator>> : std::true_type {};

template <class Token>
inline constexpr bool throwsReplies = ThrowsReplies<std::decay_t<Token>>::value;

template <class Token>
using SignatureFor = std::conditional_t<throwsReplies<Token>, ThrowingReplySignature, ReplySignature>;

/// The local message of an operation that ran out of time.
inline Message timeoutMessage(const std::string& topic) {
  return Message("", std::nullopt, topic, "phx_reply", Payload{{"status", "timeout"}, {"response", Payload{}}});
}

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
/// thread (a reply or its deadline) or from the thread that emits a
/// cancellation. `Throws`: the handler takes an exception_ptr, not an
/// error_code.
template <class Handler, bool Throws = false>
class PendingReply : public std::enable_shared_from_this<PendingReply<Handler, Throws>> {
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
      if constexpr (Throws) {
        auto exception = error ? std::make_exception_ptr(ReplyException(error, message)) : std::exception_ptr();
        std::move(handler)(std::move(exception), std::move(message));
      } else {
        std::move(handler)(error, std::move(message));
      }
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

/// Completes `pending` with the first outcome of `push`, or with a
/// time-out once `deadline` seconds have passed, whether or not the push
/// could be sent meanwhile.
template <class Pending>
void completeWithOutcome(const std::shared_ptr<Pending>& pending, const std::shared_ptr<Push>& push,
                         const std::string& topic, double deadline) {
  // The hook's reference, known once the hook is added on the loop, and the
  // deadline's timer; both are touched on the loop only.
  struct Waiting {
    std::optional<std::int64_t> hookRef;
    std::optional<boost::asio::steady_timer> timer;

    void end(Push& push) {
      if (hookRef) {
        push.withdrawOutcomeHook(*std::exchange(hookRef, std::nullopt));
      }
      if (timer) {
        timer->cancel();
      }
    }
  };
  auto waiting = std::make_shared<Waiting>();
  pending->onCancellation(
      [push, waiting] { platform::EventLoop::main().dispatch([push, waiting] { waiting->end(*push); }); },
      topic);
  platform::EventLoop::main().dispatch([pending, push, waiting, topic, deadline] {
    if (pending->completed()) {
      return;  // cancelled before it started
    }
    const std::weak_ptr<Push> weakPush = push;
    waiting->hookRef = push->onOutcome([pending, weakPush, waiting](const Message& message) {
      if (pending->complete(replyErrorOf(message), message)) {
        if (auto push = weakPush.lock()) {
          waiting->end(*push);
        }
      }
    });
    if (pending->completed()) {
      waiting->end(*push);  // the reply was there already
      return;
    }
    // The push's own time-out starts only once it is sent, which may be
    // never while the server is unreachable: the operation keeps its own.
    waiting->timer.emplace(platform::EventLoop::main().context());
    waiting->timer->expires_after(std::chrono::duration_cast<std::chrono::steady_clock::duration>(
        std::chrono::duration<double>(deadline)));
    waiting->timer->async_wait([pending, weakPush, waiting, topic](boost::system::error_code error) {
      if (error || !pending->complete(ReplyError::timeout, timeoutMessage(topic))) {
        return;
      }
      if (auto push = weakPush.lock()) {
        waiting->end(*push);
      }
    });
  });
}

/// Starts the push that `makePush` makes on `channel` and completes with
/// its first outcome, within `deadline` seconds (the channel's time-out
/// when absent).
template <class CompletionToken, class MakePush>
auto asyncOutcome(CompletionToken&& token, std::shared_ptr<Channel> channel, std::optional<double> deadline,
                  MakePush makePush) {
  return boost::asio::async_initiate<CompletionToken, SignatureFor<CompletionToken>>(
      [channel = std::move(channel), deadline, makePush = std::move(makePush)](auto handler) mutable {
        auto pending =
            std::make_shared<PendingReply<decltype(handler), throwsReplies<CompletionToken>>>(std::move(handler));
        auto push = makePush(*channel);
        completeWithOutcome(pending, push, channel->topic(), deadline ? *deadline : channel->timeout());
      },
      token);
}

}  // namespace detail

/// Joins `channel` (see `Channel::join`; a second join stops the process)
/// and completes with the join's first outcome, or with
/// `ReplyError::timeout` once `timeout` (the channel's time-out when absent)
/// has passed, also while the server is unreachable and the join cannot
/// even be sent.
///
/// The operation ends there; the channel does not. A join the server
/// refuses is retried on the rejoin back-off, and one that could not be
/// sent goes out once the socket connects; `channel->leave()` stops both.
template <class CompletionToken>
auto asyncJoin(std::shared_ptr<Channel> channel, CompletionToken&& token,
               std::optional<double> timeout = std::nullopt) {
  return detail::asyncOutcome(std::forward<CompletionToken>(token), std::move(channel), timeout,
                              [timeout](Channel& channel) { return channel.join(timeout); });
}

/// Pushes `event` with `payload` (see `Channel::push`) and completes with
/// its reply, or with `ReplyError::timeout` once `timeout` has passed,
/// whether or not the push could be sent meanwhile. A push held in the
/// channel's buffer (not joined yet, or the connection down) is still sent
/// when the channel can send it; its reply then reaches only the push's
/// own hooks.
template <class CompletionToken>
auto asyncPush(std::shared_ptr<Channel> channel, std::string event, Payload payload,
               CompletionToken&& token, double timeout = Defaults::timeoutInterval) {
  return detail::asyncOutcome(std::forward<CompletionToken>(token), std::move(channel), timeout,
                              [event = std::move(event), payload = std::move(payload), timeout](
                                  Channel& channel) mutable { return channel.push(event, std::move(payload), timeout); });
}

/// Leaves `channel` (see `Channel::leave`) and completes with the leave's
/// reply, or with `ReplyError::timeout` once `timeout` has passed.
template <class CompletionToken>
auto asyncLeave(std::shared_ptr<Channel> channel, CompletionToken&& token,
                double timeout = Defaults::timeoutInterval) {
  return detail::asyncOutcome(std::forward<CompletionToken>(token), std::move(channel), timeout,
                              [timeout](Channel& channel) { return channel.leave(timeout); });
}

/// Completes with the next message of `event` that reaches the channel's
/// bindings (a broadcast or a push from the server), never with an error
/// other than a cancellation.
template <class CompletionToken>
auto asyncReceive(std::shared_ptr<Channel> channel, std::string event, CompletionToken&& token) {
  return boost::asio::async_initiate<CompletionToken, detail::SignatureFor<CompletionToken>>(
      [channel = std::move(channel), event = std::move(event)](auto handler) {
        auto pending = std::make_shared<
            detail::PendingReply<decltype(handler), detail::throwsReplies<CompletionToken>>>(std::move(handler));
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
