#include "ConnectionIndicator.hpp"

#include <cmath>

namespace vantor::desktop {

ConnectionIndicator::ConnectionIndicator(QWidget* parent) : QLabel(parent) {
  setObjectName("indicator");
  countdown_.setInterval(250);
  QObject::connect(&countdown_, &QTimer::timeout, this, [this] { refresh(); });
  showConnecting();
}

void ConnectionIndicator::showConnected() {
  countdown_.stop();
  show("connected", "#1a7f37");
}

void ConnectionIndicator::showConnecting() {
  countdown_.stop();
  show("connecting…", "#9a6700");
}

void ConnectionIndicator::showReconnecting(Clock::time_point nextAttempt) {
  nextAttempt_ = nextAttempt;
  countdown_.start();
  refresh();
}

void ConnectionIndicator::showOffline() {
  countdown_.stop();
  show("offline", "#cf222e");
}

void ConnectionIndicator::refresh() {
  const auto left = std::chrono::duration<double>(nextAttempt_ - Clock::now()).count();
  if (left <= 0) {
    showConnecting();
    return;
  }
  show(QString("reconnecting in %1 s").arg(static_cast<int>(std::ceil(left))), "#9a6700");
}

void ConnectionIndicator::show(const QString& text, const char* colour) {
  setText(text);
  setStyleSheet(QString("QLabel { color: %1; font-weight: bold; }").arg(colour));
}

}  // namespace vantor::desktop
