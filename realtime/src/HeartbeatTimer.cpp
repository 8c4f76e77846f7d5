#include "vantor/realtime/HeartbeatTimer.hpp"

#include <algorithm>
#include <boost/uuid/random_generator.hpp>
#include <boost/uuid/uuid_io.hpp>
#include <cctype>
#include <cmath>
#include <utility>

#include "vantor/platform/DispatchQueue.hpp"
#include "vantor/platform/DispatchSourceTimer.hpp"
#include "vantor/platform/Fatal.hpp"

namespace vantor::realtime {

namespace {

std::string makeUuid() {
  auto text = boost::uuids::to_string(boost::uuids::random_generator()());
  std::transform(text.begin(), text.end(), text.begin(),
                 [](unsigned char c) { return static_cast<char>(std::toupper(c)); });
  return text;
}

}  // namespace

HeartbeatTimer::HeartbeatTimer(double timeInterval, platform::DispatchQueue& queue,
                               std::chrono::nanoseconds leeway)
    : timeInterval_(timeInterval), queue_(queue), leeway_(leeway), uuid_(makeUuid()) {
  if (!std::isfinite(timeInterval) || timeInterval <= 0.0 || timeInterval > 1e9) {
    platform::fatalError("HeartbeatTimer interval must be a positive number of seconds");
  }
}

HeartbeatTimer::~HeartbeatTimer() {
  // Cancelling a source is safe from any thread, so this does not wait for
  // the queue: releasing a socket must not block on the loop. A tick already
  // on its way finds its owner gone. The lock orders this after a stop()
  // made on the queue.
  std::shared_ptr<platform::DispatchSourceTimer> timer;
  std::function<void()> handler;
  {
    std::lock_guard lock(timerMutex_);
    timer = std::move(temporaryTimer_);
    handler = std::move(temporaryEventHandler_);
  }
  if (timer) {
    timer->cancel();
  }
}

void HeartbeatTimer::start(std::function<void()> eventHandler) {
  queue_.sync([&] {
    const auto interval = std::chrono::duration_cast<std::chrono::nanoseconds>(
        std::chrono::duration<double>(timeInterval_));
    auto timer = platform::DispatchSourceTimer::make(queue_);
    timer->setEventHandler(eventHandler);
    timer->schedule(interval, interval, leeway_);
    timer->resume();
    std::shared_ptr<platform::DispatchSourceTimer> previous;
    std::function<void()> previousHandler;
    {
      std::lock_guard lock(timerMutex_);
      previous = std::exchange(temporaryTimer_, std::move(timer));
      previousHandler = std::exchange(temporaryEventHandler_, std::move(eventHandler));
    }
    if (previous) {
      previous->cancel();
    }
  });
}

void HeartbeatTimer::stop() {
  queue_.sync([&] {
    std::shared_ptr<platform::DispatchSourceTimer> timer;
    std::function<void()> handler;  // released outside the lock
    {
      std::lock_guard lock(timerMutex_);
      timer = std::move(temporaryTimer_);
      handler = std::move(temporaryEventHandler_);
    }
    if (timer) {
      timer->cancel();
    }
  });
}

bool HeartbeatTimer::isValid() const {
  return queue_.sync([&] {
    std::lock_guard lock(timerMutex_);
    return temporaryTimer_ != nullptr;
  });
}

void HeartbeatTimer::fire() {
  queue_.sync([&] {
    std::function<void()> handler;  // a copy: the handler may stop this timer
    {
      std::lock_guard lock(timerMutex_);
      handler = temporaryEventHandler_;
    }
    if (handler) {
      handler();
    }
  });
}

}  // namespace vantor::realtime
