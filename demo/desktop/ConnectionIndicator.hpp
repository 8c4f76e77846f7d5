#pragma once

#include <QLabel>
#include <QTimer>
#include <chrono>

namespace vantor::desktop {

/// The window's connection line: "connected", "connecting…", "reconnecting
/// in N s" counting down to the next attempt, or "offline" when no attempt
/// is coming (the desktop reports no connectivity, or the socket was
/// disconnected).
class ConnectionIndicator : public QLabel {
 public:
  using Clock = std::chrono::steady_clock;

  explicit ConnectionIndicator(QWidget* parent = nullptr);

  void showConnected();
  void showConnecting();
  /// Counts down to `nextAttempt`, then shows "connecting…".
  void showReconnecting(Clock::time_point nextAttempt);
  void showOffline();

 private:
  void refresh();
  void show(const QString& text, const char* colour);

  QTimer countdown_;
  Clock::time_point nextAttempt_;
};

}  // namespace vantor::desktop
