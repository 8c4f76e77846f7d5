#pragma once

#include <chrono>
#include <memory>

#include "vantor/platform/LoopTurns.hpp"

class QSocketNotifier;
class QTimer;

namespace vantor::qt {

// In main(), as examples/qt.cpp does:
//   QCoreApplication app(argc, argv);   // or QGuiApplication, QApplication
//   vantor::qt::QtMainLoop loop;         // before anything else uses the library

/// Runs the library's event loop inside Qt's, on the thread of the
/// application object: every callback of the library (socket callbacks,
/// channel bindings, push hooks, presence callbacks, the completion-token
/// operations' default executor, the account layer's published account,
/// notifications and promise continuations) then runs on the GUI thread, in
/// order, and a call into the library from the GUI thread acts at once
/// without waiting for another thread.
///
/// Make one on the GUI thread after the `QCoreApplication` (or
/// `QGuiApplication`, `QApplication`) and before anything else uses the
/// library, and keep it as long as the library is used (examples/qt.cpp).
///
/// The library's sockets and timers are watched through one descriptor; Qt
/// wakes only when one of them is ready or work was posted from another
/// thread, so an idle connection costs no polling. Each turn runs the ready
/// work for at most `turnBudget` before Qt's own events get their turn.
///
/// Thread safety: make and destroy it on the GUI thread.
class QtMainLoop {
 public:
  explicit QtMainLoop(std::chrono::microseconds turnBudget = std::chrono::milliseconds(2));
  ~QtMainLoop();
  QtMainLoop(const QtMainLoop&) = delete;
  QtMainLoop& operator=(const QtMainLoop&) = delete;

  /// The turns the library's work has taken on this thread: how many, and
  /// the longest, which is what the GUI thread spends inside the library at
  /// one stretch.
  [[nodiscard]] platform::LoopTurns& turns() noexcept { return turns_; }

 private:
  void turn();

  platform::LoopTurns turns_;
  std::unique_ptr<QSocketNotifier> notifier_;
  std::unique_ptr<QTimer> again_;
};

}  // namespace vantor::qt
