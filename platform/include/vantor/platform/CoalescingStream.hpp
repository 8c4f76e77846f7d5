#pragma once

#include <atomic>
#include <boost/asio/buffer.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/write.hpp>
#include <boost/beast/core/bind_handler.hpp>
#include <boost/beast/core/role.hpp>
#include <boost/beast/websocket/teardown.hpp>
#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace vantor::platform {

/// A stream layer that gathers small writes into one system call.
///
/// A write is copied. The bytes go out when the reader next waits on the
/// socket; when the reader is already waiting, once the writer above says no
/// more is coming (`setMoreComing(false)`) and the handlers queued before
/// that have run; and at the latest with a write, or a `flushIfHeldLong()`,
/// a millisecond after them. So the replies made while the frames of one
/// read are handled, or pushes queued from another thread, leave in one
/// `send`, and an idle connection still writes without delay. The held
/// bytes are written before the connection is torn down.
///
/// When a write is reported done:
/// - at once, while what is held stays within `maximumHeld()` and either
///   more writes are coming or the reader is busy with what it has read
///   (the bytes then leave before it next waits);
/// - otherwise once its bytes are handed to the kernel, or fail to be: the
///   last write of a burst learns the outcome of the send that carried it,
///   and a writer past the bound waits until the held bytes fall back
///   within it, as a stream's writer expects.
/// A failed send fails the writes still waiting and every later one.
///
/// `countHeldInto()` counts what was accepted and not yet handed to the
/// kernel, for readers on any thread.
///
/// Runs on one thread, the one that runs its next layer's executor.
template <class NextLayer>
class CoalescingStream {
 public:
  using next_layer_type = NextLayer;
  // TLS over this layer reaches the socket through these.
  using lowest_layer_type = typename NextLayer::socket_type;
  using executor_type = typename NextLayer::executor_type;

  /// What a stream holds at most before its writer waits, unless set.
  static constexpr std::size_t defaultMaximumHeld = 256 * 1024;

  template <class... Args>
  explicit CoalescingStream(Args&&... args) : next_(std::forward<Args>(args)...) {}

  // Pending operations refer to this object, which therefore stays put.
  CoalescingStream(const CoalescingStream&) = delete;
  CoalescingStream& operator=(const CoalescingStream&) = delete;

  ~CoalescingStream() { state_->alive = false; }

  executor_type get_executor() noexcept { return next_.get_executor(); }
  NextLayer& next_layer() noexcept { return next_; }
  const NextLayer& next_layer() const noexcept { return next_; }
  lowest_layer_type& lowest_layer() noexcept { return next_.socket(); }
  const lowest_layer_type& lowest_layer() const noexcept { return next_.socket(); }

  /// Whether the writer above has further writes queued right behind this
  /// one; while it has, a waiting reader does not make the bytes go out.
  void setMoreComing(bool more) noexcept { moreComing_ = more; }

  /// Adds the bytes accepted and not yet handed to the kernel to `total`
  /// (which others may add to as well), until they leave or are dropped.
  void countHeldInto(std::shared_ptr<std::atomic<std::uint64_t>> total) {
    state_->total = std::move(total);
    state_->publishHeld();
  }

  /// How much may be held before a write waits for the socket.
  void setMaximumHeld(std::size_t bytes) noexcept { maximumHeld_ = bytes; }
  [[nodiscard]] std::size_t maximumHeld() const noexcept { return maximumHeld_; }

  template <class MutableBuffers, class Handler>
  void async_read_some(const MutableBuffers& buffers, Handler&& handler) {
    flush();
    state_->readWaiting = true;
    next_.async_read_some(buffers, [state = state_, handler = std::forward<Handler>(handler)](
                                       boost::system::error_code error, std::size_t size) mutable {
      state->readWaiting = false;
      handler(error, size);
    });
  }

  template <class ConstBuffers, class Handler>
  void async_write_some(const ConstBuffers& buffers, Handler&& handler) {
    auto& state = *state_;
    std::size_t size = 0;
    if (!state.error) {
      if (state.pending.empty()) {
        state.heldSince = std::chrono::steady_clock::now();
      }
      for (auto it = boost::asio::buffer_sequence_begin(buffers); it != boost::asio::buffer_sequence_end(buffers);
           ++it) {
        const boost::asio::const_buffer buffer(*it);
        state.pending.append(static_cast<const char*>(buffer.data()), buffer.size());
        size += buffer.size();
      }
      state.accepted += size;
      state.publishHeld();
    }
    const bool overBound = state.accepted - state.sent > maximumHeld_;
    const bool lastOfBurst = state.readWaiting && !moreComing_;
    if (state.error || !(overBound || lastOfBurst)) {
      boost::asio::post(get_executor(), boost::beast::bind_front_handler(std::forward<Handler>(handler),
                                                                          state.error, size));
    } else {
      // Released once the send that carries its bytes is done, or, past the
      // bound, once the held bytes fit within it again.
      const auto releaseAt = overBound && !lastOfBurst ? state.accepted - maximumHeld_ : state.accepted;
      auto shared = std::make_shared<std::decay_t<Handler>>(std::forward<Handler>(handler));
      state.waiting.push_back({releaseAt, [shared, size](boost::system::error_code error) {
                                 (*shared)(error, error ? 0 : size);
                               }});
    }
    if (overBound || std::chrono::steady_clock::now() - state.heldSince > maximumHold_) {
      flush();
    } else if (lastOfBurst) {
      // Posted rather than written now: writes queued on the loop behind
      // this one join it.
      flushSoon();
    }
  }

  /// How long bytes may be held at most (a millisecond unless set).
  void setMaximumHold(std::chrono::steady_clock::duration hold) noexcept { maximumHold_ = hold; }

  /// Sends the held bytes if they have waited a millisecond already: the
  /// reader calls this before handling each frame it already has, so a
  /// long run of frames, or a slow one, does not keep earlier answers back.
  void flushIfHeldLong() {
    if (!state_->pending.empty() && std::chrono::steady_clock::now() - state_->heldSince > maximumHold_) {
      flush();
    }
  }

  /// Writes the held bytes now, then runs `done` with the first write error
  /// (or none) once nothing is held or being written; never within this call.
  void flushThen(std::function<void(boost::system::error_code)> done) {
    state_->whenFlushed.push_back(std::move(done));
    flush();
  }

 private:
  std::chrono::steady_clock::duration maximumHold_ = std::chrono::milliseconds(1);
  std::size_t maximumHeld_ = defaultMaximumHeld;

  // A write whose report waits until `releaseAt` bytes have been sent.
  struct Waiting {
    std::uint64_t releaseAt;
    std::function<void(boost::system::error_code)> complete;
  };

  struct State {
    std::string pending;  // bytes accepted, not yet handed to the socket
    std::string writing;  // bytes being written
    std::uint64_t accepted = 0;  // bytes ever accepted
    std::uint64_t sent = 0;      // bytes ever handed to the kernel, or dropped after a failure
    std::chrono::steady_clock::time_point heldSince;
    boost::system::error_code error;
    std::vector<Waiting> waiting;
    std::vector<std::function<void(boost::system::error_code)>> whenFlushed;
    bool readWaiting = false;
    bool writingNow = false;
    bool flushPosted = false;
    bool alive = true;

    std::shared_ptr<std::atomic<std::uint64_t>> total;
    std::uint64_t counted = 0;  // what `total` has of this stream's bytes

    void publishHeld() {
      const auto now = accepted - sent;
      if (total && now != counted) {
        total->fetch_add(now - counted, std::memory_order_relaxed);  // wraps to a subtraction
        counted = now;
      }
    }

    State() = default;
    State(const State&) = delete;
    State& operator=(const State&) = delete;
    ~State() {
      if (total) {
        total->fetch_sub(counted, std::memory_order_relaxed);
      }
    }
  };

  void flushSoon() {
    if (state_->flushPosted) {
      return;
    }
    state_->flushPosted = true;
    boost::asio::post(get_executor(), [this, state = state_] {
      state->flushPosted = false;
      if (state->alive) {
        flush();
      }
    });
  }

  void flush() {
    writeHeld();
    settle();
  }

  // Reports the writes whose bytes have now left, or all of them after a
  // failure, and hands the waiters of `flushThen` their result once no send
  // is in flight. Posted: this may run inside another operation's start.
  static void settle(const std::shared_ptr<State>& shared, const executor_type& executor) {
    auto& state = *shared;
    std::erase_if(state.waiting, [&](Waiting& write) {
      if (!state.error && write.releaseAt > state.sent) {
        return false;
      }
      boost::asio::post(executor, [complete = std::move(write.complete), error = state.error] { complete(error); });
      return true;
    });
    if (state.whenFlushed.empty() || state.writingNow) {
      return;
    }
    for (auto& done : std::exchange(state.whenFlushed, {})) {
      boost::asio::post(executor, [done = std::move(done), error = state.error] { done(error); });
    }
  }
  void settle() { settle(state_, get_executor()); }

  // A failed send drops what is held; its writes, and all after, fail.
  static void fail(State& state, boost::system::error_code error) {
    if (!state.error) {
      state.error = error;
    }
    state.pending.clear();
    state.sent = state.accepted;
    state.publishHeld();
  }

  void writeHeld() {
    auto& state = *state_;
    if (state.writingNow || state.pending.empty() || state.error) {
      return;
    }
    // Most sends fit in the socket's buffer at once: try without waiting
    // first, so that only a send that must wait costs an operation.
    auto& socket = lowest_layer();
    boost::system::error_code error;
    if (!socket.non_blocking()) {
      socket.non_blocking(true, error);
    }
    const auto sent = error ? 0 : socket.write_some(boost::asio::buffer(state.pending), error);
    if (error && error != boost::asio::error::would_block && error != boost::asio::error::try_again) {
      fail(state, error);
      return;
    }
    state.sent += sent;
    if (sent == state.pending.size()) {
      state.pending.clear();
      state.publishHeld();
      return;
    }
    state.pending.erase(0, sent);
    state.writingNow = true;
    state.writing.swap(state.pending);
    state.pending.clear();
    state.publishHeld();
    boost::asio::async_write(next_, boost::asio::buffer(state.writing),
                             [this, state = state_, executor = get_executor()](boost::system::error_code error,
                                                                               std::size_t) {
                               state->writingNow = false;
                               state->sent += state->writing.size();
                               state->writing.clear();
                               if (error) {
                                 fail(*state, error);
                               }
                               state->publishHeld();
                               settle(state, executor);
                               if (state->alive && !state->pending.empty() && !state->error) {
                                 // Written meanwhile: more may join them
                                 // from the handlers already queued.
                                 flushSoon();
                               }
                             });
  }

  NextLayer next_;
  std::shared_ptr<State> state_ = std::make_shared<State>();
  bool moreComing_ = false;
};

/// Closing a WebSocket connection writes the held bytes first.
template <class NextLayer, class Handler>
void async_teardown(boost::beast::role_type role, CoalescingStream<NextLayer>& stream, Handler&& handler) {
  auto shared = std::make_shared<std::decay_t<Handler>>(std::forward<Handler>(handler));
  stream.flushThen([&stream, role, shared](boost::system::error_code) {
    using boost::beast::websocket::async_teardown;
    async_teardown(role, stream.next_layer(), std::move(*shared));
  });
}

}  // namespace vantor::platform
