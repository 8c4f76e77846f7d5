#pragma once

// What the sign-in tests wait for: URLs handed over from another thread (to
// the default browser, or to the application), and a sign-in's outcome.
#include <gtest/gtest.h>

#include <chrono>
#include <condition_variable>
#include <deque>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vantor/account/QMQuelmoConnectController.hpp>

namespace vantor::account::testing {

// URLs kept in the order they came, from any thread.
class UrlInbox {
 public:
  bool add(const std::string& url) {
    std::lock_guard lock(mutex_);
    urls_.push_back(url);
    ready_.notify_all();
    return true;
  }
  std::optional<std::string> next(std::chrono::seconds timeout = std::chrono::seconds(20)) {
    std::unique_lock lock(mutex_);
    if (!ready_.wait_for(lock, timeout, [this] { return !urls_.empty(); })) {
      return std::nullopt;
    }
    auto url = urls_.front();
    urls_.pop_front();
    return url;
  }

 private:
  std::mutex mutex_;
  std::condition_variable ready_;
  std::deque<std::string> urls_;
};

// How a sign-in ended: nothing for an account, else the error. Waits up to
// a minute; a sign-in that does not end fails the test.
inline std::optional<QMQuelmoConnectControllerError> outcomeOf(
    const util::QMPromise<std::shared_ptr<QMAccount>>& promise) {
  for (int waited = 0; waited < 3000 && !promise.result(); ++waited) {
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  if (!promise.result()) {
    ADD_FAILURE() << "the sign-in did not finish";
    return QMQuelmoConnectControllerError::internal;
  }
  try {
    (void)promise.future().get();
    return std::nullopt;
  } catch (const QMQuelmoConnectControllerException& e) {
    return e.error();
  }
}

}  // namespace vantor::account::testing
