#pragma once

#include <chrono>

#include "vantor/platform/LoopTurns.hpp"

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

  /// The turns the library's work has taken on this thread: how many, and
  /// the longest, which is what the GUI thread spends inside the library at
  /// one stretch.
  [[nodiscard]] platform::LoopTurns& turns() noexcept { return turns_; }

 private:
  void turn();
  void turnAgainSoon();

  GMainContext* context_;
  platform::LoopTurns turns_;
  GSource* watch_ = nullptr;
  GSource* again_ = nullptr;
};

}  // namespace vantor::glib
