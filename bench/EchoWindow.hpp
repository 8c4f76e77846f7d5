#pragma once

#include <atomic>
#include <memory>
#include <utility>

#include "vantor/realtime/Channel.hpp"
#include "vantor/realtime/Push.hpp"

namespace vantor::bench {

/// Keeps a number of "echo" pushes outstanding on a joined channel: each
/// reply sends the next, until `close()`. It must outlive the replies of the
/// pushes it sent (wait for `settled()` before it goes).
class EchoWindow {
 public:
  explicit EchoWindow(std::shared_ptr<realtime::Channel> channel) : channel_(std::move(channel)) {}

  /// On the library's loop: `window` pushes go out now.
  void open(int window) {
    for (int i = 0; i < window; ++i) {
      pushOne();
    }
  }
  /// Replies from now on send nothing more.
  void close() { closing_ = true; }
  [[nodiscard]] long answered() const { return done_; }
  [[nodiscard]] bool settled() const { return done_ == sent_; }

 private:
  void pushOne() {
    ++sent_;
    channel_->push("echo", payload_)->receive("ok", [this](const realtime::Message&) {
      ++done_;
      if (!closing_) {
        pushOne();
      }
    });
  }

  std::shared_ptr<realtime::Channel> channel_;
  const realtime::Payload payload_{{"body", "a message of a usual size for a chat or a status"}};
  std::atomic<long> sent_{0};
  std::atomic<long> done_{0};
  std::atomic<bool> closing_{false};
};

}  // namespace vantor::bench
