#pragma once

#include <chrono>
#include <condition_variable>
#include <mutex>

namespace vantor::testing {

// What a server has observed, written on its thread and read or waited for
// from test threads. Every update wakes the waiters.
template <class Records>
class Recorder {
 public:
  template <class F>
  void update(F f) {
    {
      std::lock_guard lock(mutex_);
      f(records_);
    }
    changed_.notify_all();
  }

  template <class F>
  auto read(F f) const {
    std::lock_guard lock(mutex_);
    return f(records_);
  }

  // True once `predicate(records)` holds, false if the timeout passes first.
  template <class Predicate>
  bool waitFor(std::chrono::milliseconds timeout, Predicate predicate) const {
    std::unique_lock lock(mutex_);
    return changed_.wait_for(lock, timeout, [&] { return predicate(records_); });
  }

 private:
  mutable std::mutex mutex_;
  mutable std::condition_variable changed_;
  Records records_;
};

}  // namespace vantor::testing
