#pragma once

#include <algorithm>
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

/// Strings written down from any thread; read as copies.
class Notes {
 public:
  void add(std::string note) {
    std::lock_guard lock(mutex_);
    notes_.push_back(std::move(note));
  }
  /// A callback, of any signature, that writes down `note`.
  auto adder(std::string note) {
    return [this, note](auto&&...) { add(note); };
  }
  std::vector<std::string> all() const {
    std::lock_guard lock(mutex_);
    return notes_;
  }
  std::size_t size() const { return all().size(); }
  std::size_t count(const std::string& note) const {
    auto notes = all();
    return static_cast<std::size_t>(std::count(notes.begin(), notes.end(), note));
  }
  bool contains(const std::string& note) const { return count(note) > 0; }

 private:
  mutable std::mutex mutex_;
  std::vector<std::string> notes_;
};

/// Collects a socket's log lines.
class LogRecorder : public Notes {
 public:
  auto logger() {
    return [this](const std::string& line) { add(line); };
  }
};

}  // namespace vantor::realtime::testing
