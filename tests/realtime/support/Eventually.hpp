#pragma once

#include <chrono>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace vantor::realtime::testing {

/// Polls `predicate` until it holds or a generous limit passes; the limit
/// only catches hangs and is never a timing assertion.
template <class Predicate>
bool eventually(Predicate predicate, std::chrono::milliseconds limit = std::chrono::seconds(20)) {
  const auto deadline = std::chrono::steady_clock::now() + limit;
  while (!predicate()) {
    if (std::chrono::steady_clock::now() > deadline) {
      return false;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  return true;
}

/// Collects a socket's log lines.
class LogRecorder {
 public:
  auto logger() {
    return [this](const std::string& line) {
      std::lock_guard lock(mutex_);
      lines_.push_back(line);
    };
  }
  bool contains(const std::string& line) const { return count(line) > 0; }
  std::size_t count(const std::string& line) const {
    std::lock_guard lock(mutex_);
    std::size_t n = 0;
    for (const auto& seen : lines_) {
      n += seen == line ? 1 : 0;
    }
    return n;
  }

 private:
  mutable std::mutex mutex_;
  std::vector<std::string> lines_;
};

}  // namespace vantor::realtime::testing
