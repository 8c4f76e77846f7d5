#include "vantor/platform/DispatchSourceTimer.hpp"

#include <boost/asio/post.hpp>
#include <boost/asio/steady_timer.hpp>

#include "DispatchQueueImpl.hpp"

namespace vantor::platform {

namespace asio = boost::asio;

struct DispatchSourceTimer::Impl {
  explicit Impl(DispatchQueue& queue) : strand(queue.impl_->strand), timer(strand) {}

  asio::strand<asio::io_context::executor_type> strand;
  asio::steady_timer timer;  // touched only on the strand
  mutable std::mutex mutex;
  std::function<void()> handler;
  std::chrono::nanoseconds deadline{0};
  std::chrono::nanoseconds interval{0};
  bool resumed = false;
  bool cancelled = false;
};

std::shared_ptr<DispatchSourceTimer> DispatchSourceTimer::make(DispatchQueue& queue) {
  return std::shared_ptr<DispatchSourceTimer>(new DispatchSourceTimer(queue));
}

DispatchSourceTimer::DispatchSourceTimer(DispatchQueue& queue)
    : impl_(std::make_unique<Impl>(queue)) {}

// The timer's destructor cancels a pending wait, whose handler holds only a
// weak reference and so completes quietly.
DispatchSourceTimer::~DispatchSourceTimer() = default;

void DispatchSourceTimer::setEventHandler(std::function<void()> handler) {
  std::lock_guard lock(impl_->mutex);
  if (!impl_->cancelled) {
    impl_->handler = std::move(handler);
  }
}

void DispatchSourceTimer::schedule(std::chrono::nanoseconds deadline,
                                   std::chrono::nanoseconds interval,
                                   std::chrono::nanoseconds /*leeway*/) {
  std::lock_guard lock(impl_->mutex);
  impl_->deadline = deadline;
  impl_->interval = interval;
}

void DispatchSourceTimer::resume() {
  {
    std::lock_guard lock(impl_->mutex);
    if (impl_->resumed || impl_->cancelled) {
      return;
    }
    impl_->resumed = true;
  }
  asio::post(impl_->strand, [weak = weak_from_this()] {
    if (auto self = weak.lock()) {
      std::chrono::nanoseconds deadline;
      {
        std::lock_guard lock(self->impl_->mutex);
        deadline = self->impl_->deadline;
      }
      self->impl_->timer.expires_after(deadline);
      self->arm();
    }
  });
}

void DispatchSourceTimer::arm() {
  impl_->timer.async_wait([weak = weak_from_this()](const boost::system::error_code& error) {
    if (error) {
      return;
    }
    if (auto self = weak.lock()) {
      self->fired();
    }
  });
}

void DispatchSourceTimer::fired() {
  std::function<void()> handler;
  bool repeats = false;
  {
    std::lock_guard lock(impl_->mutex);
    if (impl_->cancelled) {
      return;
    }
    handler = impl_->handler;
    repeats = impl_->interval > std::chrono::nanoseconds::zero();
    if (repeats) {
      impl_->timer.expires_at(impl_->timer.expiry() + impl_->interval);
    }
  }
  // Re-armed before the handler runs, so a handler that cancels the timer
  // also withdraws the next firing.
  if (repeats) {
    arm();
  }
  if (handler) {
    handler();
  }
}

void DispatchSourceTimer::cancel() {
  std::function<void()> handler;
  {
    std::lock_guard lock(impl_->mutex);
    if (impl_->cancelled) {
      return;
    }
    impl_->cancelled = true;
    handler = std::exchange(impl_->handler, nullptr);
  }
  asio::post(impl_->strand, [weak = weak_from_this()] {
    if (auto self = weak.lock()) {
      self->impl_->timer.cancel();
    }
  });
}

bool DispatchSourceTimer::isCancelled() const {
  std::lock_guard lock(impl_->mutex);
  return impl_->cancelled;
}

}  // namespace vantor::platform
