#pragma once

#include <chrono>
#include <cstdio>
#include <mutex>
#include <string>

namespace vantor::demo {

/// Prints numbered-by-time lines from any thread without interleaving.
class Transcript {
 public:
  void say(const std::string& who, const std::string& what) {
    std::lock_guard lock(mutex_);
    const auto elapsed = std::chrono::duration_cast<std::chrono::milliseconds>(
        std::chrono::steady_clock::now() - start_);
    std::printf("%6.3fs  %-7s %s\n", static_cast<double>(elapsed.count()) / 1000.0, who.c_str(),
                what.c_str());
    std::fflush(stdout);
  }

 private:
  std::mutex mutex_;
  std::chrono::steady_clock::time_point start_ = std::chrono::steady_clock::now();
};

}  // namespace vantor::demo
