#include "vantor/platform/EventLoop.hpp"

#include <algorithm>
#include <atomic>
#include <boost/asio/executor_work_guard.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/posix/stream_descriptor.hpp>
#include <boost/asio/steady_timer.hpp>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <functional>
#include <optional>
#include <openssl/crypto.h>
#include <openssl/ssl.h>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <pthread.h>
#include <sched.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include "AsioWakeUp.hpp"

#include "vantor/platform/DispatchWorkItem.hpp"
#include "vantor/platform/Fatal.hpp"

namespace vantor::platform {

namespace asio = boost::asio;

namespace {
constexpr std::chrono::microseconds defaultPollBeforeSleep{50};

std::atomic<bool> mainInUse{false};
std::atomic<bool> mainOnHostThread{false};
// The thread that asked to run the main loop itself; it owns the loop even
// before it calls run().
std::atomic<std::thread::id> mainHostThread{};

// Sets the calling thread's policy: batch threads do not pre-empt the
// running thread when they wake.
void yieldOnWake(bool yields) {
  const sched_param none{};
  pthread_setschedparam(pthread_self(), yields ? SCHED_BATCH : SCHED_OTHER, &none);
}

// Runs `work`; an exception that escapes it is written to standard error,
// so that one faulty callback cannot stall the library. True if none did.
template <class F>
bool runReportingEscapes(F&& work) {
  try {
    work();
    return true;
  } catch (const std::exception& e) {
    std::fprintf(stderr, "Uncaught exception on the event loop: %s\n", e.what());
  } catch (...) {
    std::fprintf(stderr, "Uncaught exception on the event loop\n");
  }
  return false;
}
}  // namespace

struct EventLoop::Impl {
  asio::io_context context{1};
  std::optional<asio::executor_work_guard<asio::io_context::executor_type>> work;
  std::thread thread;
  std::atomic<bool> stopped{false};
  std::atomic<bool> running{false};
  bool hostRun = false;
  bool ownThread = false;  // set before the loop is shared

  // Work posted from other threads, run in order by one handler: a burst of
  // calls from an application thread costs the loop one wake-up and one
  // handler instead of one each.
  std::mutex inboxMutex;
  std::vector<std::function<void()>> inbox;
  bool drainPosted = false;

  // The poster wakes the loop through an eventfd of its own rather than
  // through Asio's post, which wakes the loop while it holds the scheduler's
  // lock: on a shared core the woken loop would pre-empt the poster and
  // then block on that lock. The counter is read back with a read of
  // exactly its size, which Asio tries at once when it re-arms and otherwise
  // leaves waiting without touching the descriptor's registration. Without
  // a working eventfd, Asio's post wakes the loop instead.
  std::optional<asio::posix::stream_descriptor> wake;
  std::atomic<bool> wakeWorks{false};
  std::uint64_t wakeCount = 0;

  Impl() {
    const int fd = ::eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
    if (fd >= 0) {
      wake.emplace(context, fd);
      wakeWorks = true;
      awaitWake();
    }
  }

  void awaitWake() {
    wake->async_read_some(asio::buffer(&wakeCount, sizeof wakeCount),
                          [this](const boost::system::error_code& error, std::size_t) {
                            if (error == asio::error::operation_aborted) {
                              return;
                            }
                            if (error) {
                              // Posters see this before the inbox is next
                              // free, so none of them waits on it in vain.
                              wakeWorks = false;
                            } else {
                              awaitWake();
                            }
                            drain();
                          });
  }

  void postFromAnotherThread(std::function<void()> work) {
    {
      std::lock_guard lock(inboxMutex);
      inbox.push_back(std::move(work));
      if (drainPosted) {
        return;
      }
      drainPosted = true;
    }
    if (wakeWorks) {
      const std::uint64_t one = 1;
      [[maybe_unused]] const auto written = ::write(wake->native_handle(), &one, sizeof one);
    } else {
      asio::post(context, [this] { drain(); });
    }
  }

  // Runs what was in the inbox when it starts; work that arrives meanwhile
  // gets a handler of its own, behind the I/O that is already waiting.
  void drain() {
    std::vector<std::function<void()>> batch;
    {
      std::lock_guard lock(inboxMutex);
      batch.swap(inbox);
      drainPosted = false;
    }
    for (auto& work : batch) {
      runReportingEscapes(work);
      work = nullptr;  // its captures go now, in order, as a handler's would
    }
  }

  // How long an idle loop keeps polling before it sleeps (nanoseconds);
  // zero turns polling off.
  std::atomic<std::int64_t> pollBeforeSleep{std::chrono::nanoseconds(defaultPollBeforeSleep).count()};

  // Runs the loop until it is stopped; after a handler's exception the loop
  // carries on with the next handler.
  void runLoop() {
    while (!runReportingEscapes([this] { runPolling(); })) {
    }
  }

  // As io_context::run(), but polling before sleeping (setPollBeforeSleep).
  // Work that took longer than the limit to come, a fruitless poll
  // included, means sparse traffic: the next idle goes straight to sleep.
  void runPolling() {
    using Clock = std::chrono::steady_clock;
    bool pollNext = true;
    while (!context.stopped()) {
      const std::chrono::nanoseconds limit(pollBeforeSleep.load(std::memory_order_relaxed));
      const auto idleSince = Clock::now();
      if (pollNext && limit.count() > 0 && pollUntilWork(idleSince + limit)) {
        continue;
      }
      if (context.run_one() == 0) {
        return;
      }
      pollNext = Clock::now() - idleSince < limit;
    }
  }

  // Runs ready handlers, polling until some ran or `deadline` passed; true
  // if any ran. Between rounds it offers the core to another thread that
  // shares it, such as an application thread that is pushing.
  bool pollUntilWork(std::chrono::steady_clock::time_point deadline) {
    while (context.poll() == 0) {
      if (context.stopped() || std::chrono::steady_clock::now() >= deadline) {
        return false;
      }
      sched_yield();
    }
    return true;
  }
};

EventLoop& EventLoop::main() {
  // Deliberately never destroyed: objects that outlive static destruction
  // may still reach the loop. The thread is stopped at exit instead.
  static EventLoop* const loop = [] {
    mainInUse = true;
    // OpenSSL cleans up at exit too. Initialised first, its clean-up runs
    // after the loop thread has been stopped below, never under its feet.
    OPENSSL_init_ssl(0, nullptr);
    auto* made = new EventLoop(!mainOnHostThread.load());
    made->impl_->hostRun = mainOnHostThread.load();
    if (!mainOnHostThread) {
      std::atexit([] { EventLoop::main().shutDown(); });
    }
    return made;
  }();
  return *loop;
}

void EventLoop::useHostThreadForMain() {
  if (mainInUse) {
    fatalError("EventLoop::useHostThreadForMain() must be called before the main loop is used");
  }
  mainOnHostThread = true;
  mainHostThread = std::this_thread::get_id();
}

EventLoop::EventLoop(bool ownThread) : impl_(std::make_unique<Impl>()) {
  impl_->work.emplace(impl_->context.get_executor());
  if (ownThread) {
    impl_->ownThread = true;
    impl_->thread = std::thread([impl = impl_.get()] {
      yieldOnWake(true);
      impl->runLoop();
      OPENSSL_thread_stop();  // the thread's TLS state, before OpenSSL's exit clean-up
    });
  }
}

EventLoop::~EventLoop() { shutDown(); }

void EventLoop::shutDown() noexcept {
  impl_->work.reset();
  impl_->context.stop();
  if (impl_->thread.joinable()) {
    if (impl_->thread.get_id() == std::this_thread::get_id()) {
      impl_->thread.detach();  // exit() called from a handler
      return;
    }
    impl_->thread.join();
  }
  // Only now that no handler can be running does work run on its caller.
  impl_->stopped = true;
}

asio::io_context& EventLoop::context() noexcept { return impl_->context; }

bool EventLoop::isCurrentThread() const noexcept {
  if (impl_->context.get_executor().running_in_this_thread()) {
    return true;
  }
  // Before run(), the host's own thread is the loop's: nothing else runs
  // the loop's work meanwhile, so its calls may act at once instead of
  // waiting for a loop that only it can start.
  return impl_->hostRun && !impl_->running && mainHostThread.load() == std::this_thread::get_id();
}

bool EventLoop::hasStopped() const noexcept { return impl_->stopped; }

void EventLoop::post(std::function<void()> work) {
  if (isCurrentThread()) {
    asio::post(impl_->context, std::move(work));
  } else {
    impl_->postFromAnotherThread(std::move(work));
  }
}

void EventLoop::asyncAfter(std::chrono::milliseconds delay, std::shared_ptr<DispatchWorkItem> item) {
  // Clamped, so that the conversion to the clock's nanoseconds cannot
  // overflow; a century is "never" for a process.
  constexpr std::chrono::milliseconds longest = std::chrono::hours(24 * 365 * 100);
  auto timer = std::make_shared<asio::steady_timer>(impl_->context);
  timer->expires_after(std::clamp(delay, std::chrono::milliseconds::zero(), longest));
  // Cancelling the item cancels the wait too, so a withdrawn item does not
  // hold its captures until the original deadline.
  item->setCanceller([weakTimer = std::weak_ptr(timer), &context = impl_->context] {
    asio::post(context, [weakTimer] {
      if (auto timer = weakTimer.lock()) {
        timer->cancel();
      }
    });
  });
  timer->async_wait([timer, item = std::move(item)](const boost::system::error_code&) {
    item->perform();
  });
}

void EventLoop::run() {
  if (impl_->thread.joinable()) {
    fatalError("EventLoop::run() is only for a loop that the host runs");
  }
  if (impl_->hostRun && mainHostThread.load() != std::this_thread::get_id()) {
    fatalError(
        "EventLoop::run() must be called on the thread that called useHostThreadForMain()");
  }
  impl_->stopped = false;
  impl_->running = true;
  impl_->context.restart();
  impl_->runLoop();
  impl_->running = false;
  impl_->stopped = true;
}

void EventLoop::setYieldsOnWake(bool yields) {
  if (!impl_->ownThread) {
    return;  // run by the host: its thread is not ours to change
  }
  post([yields] { yieldOnWake(yields); });
}

void EventLoop::setPollBeforeSleep(std::chrono::microseconds limit) {
  impl_->pollBeforeSleep = std::chrono::nanoseconds(std::max(limit, std::chrono::microseconds::zero())).count();
}

void EventLoop::stop() {
  impl_->work.reset();
  impl_->context.stop();
}

void EventLoop::requireDrivenByHost(const char* operation) const {
  if (!impl_->hostRun || mainHostThread.load() != std::this_thread::get_id()) {
    fatalError(std::string("EventLoop::") + operation +
               " is only for a loop that the host runs, on the thread that called useHostThreadForMain()");
  }
}

int EventLoop::readinessDescriptor() {
  requireDrivenByHost("readinessDescriptor()");
  const int descriptor = detail::readinessDescriptor(impl_->context);
  detail::armWakeUp(impl_->context);
  return descriptor;
}

bool EventLoop::runReady(std::chrono::microseconds budget) {
  requireDrivenByHost("runReady()");
  const auto deadline = std::chrono::steady_clock::now() + budget;
  bool more = true;
  do {
    std::size_t ran = 1;  // a handler that threw was reported, and ran
    runReportingEscapes([&] { ran = impl_->context.poll_one(); });
    more = ran != 0;
  } while (more && std::chrono::steady_clock::now() < deadline);
  detail::armWakeUp(impl_->context);
  return more;
}

}  // namespace vantor::platform
