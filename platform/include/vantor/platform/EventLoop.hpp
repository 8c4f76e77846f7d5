#pragma once

#include <chrono>
#include <functional>
#include <future>
#include <memory>
#include <type_traits>

namespace boost::asio {
class io_context;
}

namespace vantor::platform {

class DispatchWorkItem;

/// The process-wide event loop that plays the role of the main queue.
///
/// One `boost::asio::io_context` runs on exactly one thread. Every transport
/// completion, timer firing and heartbeat tick of the library runs on it, one
/// at a time, so the objects that live on the loop need no locks of their
/// own. Public operations of the library called from other threads are
/// carried onto the loop with `sync` or `post`.
///
/// By default `main()` starts the loop on a thread of its own the first time
/// it is used, and stops it when the process exits. A host that wants to run
/// the loop on a thread of its choosing calls `useHostThreadForMain()` on
/// that thread before anything uses the loop, and later `main().run()` on the
/// same thread. From `useHostThreadForMain()` on, that thread is the loop's:
/// its calls into the library act at once even before `run()`, while calls
/// from other threads wait until the loop runs.
///
/// An exception that escapes a handler is written to standard error and the
/// loop goes on with the next handler.
///
/// Thread safety: every member may be called from any thread.
class EventLoop {
 public:
  /// The main loop, made on first use (thread-safe).
  static EventLoop& main();

  /// Makes `main()` a loop that the host runs with `run()`. Must be called
  /// before the first use of `main()`; later it is a fatal error.
  static void useHostThreadForMain();

  EventLoop(const EventLoop&) = delete;
  EventLoop& operator=(const EventLoop&) = delete;
  ~EventLoop();

  /// The underlying context, for code that starts Asio operations on the loop.
  [[nodiscard]] boost::asio::io_context& context() noexcept;

  /// True when the caller runs on the loop's thread, inside a handler.
  [[nodiscard]] bool isCurrentThread() const noexcept;

  /// True once the loop has stopped running: after the process began to
  /// exit, or after `run()` returned. `sync` then runs work on the calling
  /// thread, so that clean-up code running at exit cannot wait forever.
  [[nodiscard]] bool hasStopped() const noexcept;

  /// Runs `work` on the loop later, after the work posted before it.
  void post(std::function<void()> work);

  /// Runs `work` at once when called on the loop thread (or once the loop
  /// has stopped), otherwise posts it without waiting. Work dispatched from
  /// one thread runs in the order it was dispatched, and before the work of
  /// any later `sync` from that thread.
  /// On the loop thread nothing is wrapped or allocated: the per-message
  /// calls that use it pay only for the work itself.
  template <class F>
  void dispatch(F&& work);

  /// Runs `work` on the loop and returns its result: at once when called on
  /// the loop thread (or once the loop has stopped), otherwise the work is
  /// posted and the caller waits. Exceptions thrown by `work` reach the
  /// caller. A host-run loop that has not started yet is waited for.
  template <class F>
  auto sync(F&& work) -> std::invoke_result_t<F&>;

  /// Runs `item` on the loop once `delay` has passed, unless it is cancelled
  /// first. A negative delay runs it as soon as possible.
  void asyncAfter(std::chrono::milliseconds delay, std::shared_ptr<DispatchWorkItem> item);

  /// Runs the loop on the calling thread until `stop()`; for host-run loops,
  /// on the thread that called `useHostThreadForMain()` (another thread is a
  /// fatal error).
  void run();

  /// Makes `run()` return and discards the loop's pending work. Used at exit.
  void stop();

  // --- Driven from another main loop ---------------------------------------
  // A host-run loop may instead be driven by the host's own main loop (a Qt
  // or GLib one, see vantor/qt and vantor/glib): the host watches
  // `readinessDescriptor()` for reading and calls `runReady()` when it is
  // readable, and again soon while `runReady()` says more is ready. The
  // loop's work then runs on the host's thread between its own events; that
  // thread is the loop's, so its calls into the library act at once.

  /// A descriptor that becomes readable when the loop has work: a socket or
  /// timer is ready, or work was posted from another thread. Only for a loop
  /// that the host runs, on its thread (otherwise a fatal error).
  [[nodiscard]] int readinessDescriptor();

  /// Runs the handlers that are ready, for about `budget` at most (at least
  /// one handler when any is ready), and never waits; true when more are
  /// ready, so that the host runs it again soon rather than at the next
  /// readiness. Only for a loop that the host runs, on its thread.
  bool runReady(std::chrono::microseconds budget);

  /// Whether the loop's own thread, when woken, waits for the thread that is
  /// running on its core to reach the end of its turn instead of pre-empting
  /// it (Linux's batch scheduling). On by default: on a core shared with an
  /// application thread that pushes, the loop then takes a burst of calls in
  /// one wake-up and sends them together, not one at a time. The cost is on
  /// a fully busy machine, where the loop may handle the network a few
  /// milliseconds later. Takes effect soon, on the loop; no effect on a loop
  /// that the host runs.
  void setYieldsOnWake(bool yields);

  /// How long the loop, going idle soon after it last woke, polls for work
  /// before it sleeps: 50 microseconds by default, zero for never. A reply
  /// that arrives meanwhile skips the sleep and the wake-up, a large share of
  /// a round trip on loopback or a fast network. Idle after a longer wait,
  /// or after a poll that found nothing, the loop sleeps at once, so sparse
  /// traffic costs no polling; while polling it offers its core to other
  /// threads. Takes effect at the loop's next idle.
  void setPollBeforeSleep(std::chrono::microseconds limit);

 private:
  explicit EventLoop(bool ownThread);
  void shutDown() noexcept;
  void requireDrivenByHost(const char* operation) const;

  struct Impl;
  std::unique_ptr<Impl> impl_;
};

namespace detail {

/// Hands `work` to `submit` as a block and waits for its result.
template <class F, class Submit>
auto submitAndWait(F& work, Submit&& submit) -> std::invoke_result_t<F&> {
  using Result = std::invoke_result_t<F&>;
  auto task = std::make_shared<std::packaged_task<Result()>>(
      [&work]() -> Result { return std::invoke(work); });
  auto result = task->get_future();
  submit([task] { (*task)(); });
  return result.get();
}

}  // namespace detail

template <class F>
void EventLoop::dispatch(F&& work) {
  if (isCurrentThread() || hasStopped()) {
    std::invoke(work);
  } else {
    post(std::function<void()>(std::forward<F>(work)));
  }
}

template <class F>
auto EventLoop::sync(F&& work) -> std::invoke_result_t<F&> {
  if (isCurrentThread() || hasStopped()) {
    return std::invoke(work);
  }
  return detail::submitAndWait(work, [this](std::function<void()> block) { post(std::move(block)); });
}

}  // namespace vantor::platform
