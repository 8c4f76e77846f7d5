#pragma once

#include <chrono>
#include <cstdint>

using GMainContext = struct _GMainContext;
using GSource = struct _GSource;

namespace vantor::glib {

// In main(), as examples/glib.cpp does:
//   vantor::glib::GLibMainLoop loop;   // the default main context, before anything else uses the library

/// Runs the library's event loop inside a GLib main context (GTK 4's, and
/// most Linux desktop toolkits'), on the thread that iterates it: every
/// callback of the library (socket callbacks, channel bindings, push hooks,
/// presence callbacks, the completion-token operations' default executor,
/// the account layer's published account, notifications and promise
/// continuations) then runs on that thread, in order, and a call into the
/// library from it acts at once without waiting for another thread.
///
/// Make one on that thread before anything else uses the library, and keep
/// it as long as the library is used (examples/glib.cpp).
///
/// The library's sockets and timers are watched through one descriptor; the
/// context wakes only when one of them is ready or work was posted from
/// another thread, so an idle connection costs no polling. Each turn runs the
/// ready work for at most `turnBudget` before the context's other sources
/// get their turn.
///
/// Thread safety: make and destroy it on the thread that iterates `context`.
class GLibMainLoop {
 public:
  explicit GLibMainLoop(GMainContext* context = nullptr,
                        std::chrono::microseconds turnBudget = std::chrono::milliseconds(2));
  ~GLibMainLoop();
  GLibMainLoop(const GLibMainLoop&) = delete;
  GLibMainLoop& operator=(const GLibMainLoop&) = delete;

  /// How often the library's work has run, and its longest single turn:
  /// what the GUI thread spends inside the library at one stretch.
  [[nodiscard]] std::uint64_t turns() const noexcept { return turns_; }
  [[nodiscard]] std::chrono::nanoseconds longestTurn() const noexcept { return longestTurn_; }
  /// Starts both counts again from zero.
  void resetStatistics() noexcept {
    turns_ = 0;
    longestTurn_ = std::chrono::nanoseconds::zero();
  }

 private:
  void turn();
  void turnAgainSoon();

  GMainContext* context_;
  std::chrono::microseconds turnBudget_;
  std::uint64_t turns_ = 0;
  std::chrono::nanoseconds longestTurn_{0};
  GSource* watch_ = nullptr;
  GSource* again_ = nullptr;
};

}  // namespace vantor::glib
