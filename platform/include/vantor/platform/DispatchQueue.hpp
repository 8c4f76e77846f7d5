#pragma once

#include <functional>
#include <memory>
#include <string>
#include <type_traits>

#include "vantor/platform/EventLoop.hpp"

namespace vantor::platform {

/// A labelled serial queue: a strand of an event loop that carries a label.
///
/// Work submitted with `async` runs on the loop's thread, one block at a
/// time and in submission order. `sync` runs at once when the caller is
/// already on the loop thread (the loop runs one handler at a time, so this
/// keeps the queue serial), otherwise it submits the work and waits.
///
/// Thread safety: every member may be called from any thread.
class DispatchQueue {
 public:
  explicit DispatchQueue(std::string label, EventLoop& loop = EventLoop::main());
  ~DispatchQueue();
  DispatchQueue(const DispatchQueue&) = delete;
  DispatchQueue& operator=(const DispatchQueue&) = delete;

  [[nodiscard]] const std::string& label() const noexcept { return label_; }
  [[nodiscard]] EventLoop& loop() const noexcept { return loop_; }

  void async(std::function<void()> work);

  template <class F>
  auto sync(F&& work) -> std::invoke_result_t<F&>;

 private:
  friend class DispatchSourceTimer;

  std::string label_;
  EventLoop& loop_;
  struct Impl;
  std::unique_ptr<Impl> impl_;
};

template <class F>
auto DispatchQueue::sync(F&& work) -> std::invoke_result_t<F&> {
  if (loop_.isCurrentThread() || loop_.hasStopped()) {
    return std::invoke(work);
  }
  return detail::submitAndWait(work,
                               [this](std::function<void()> block) { async(std::move(block)); });
}

}  // namespace vantor::platform
