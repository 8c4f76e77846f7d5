#include "vantor/qt/QtMainLoop.hpp"

#include <QCoreApplication>
#include <QSocketNotifier>
#include <QThread>
#include <QTimer>

#include <algorithm>

#include "vantor/platform/EventLoop.hpp"
#include "vantor/platform/Fatal.hpp"

namespace vantor::qt {

using platform::EventLoop;

QtMainLoop::QtMainLoop(std::chrono::microseconds turnBudget) : turnBudget_(turnBudget) {
  auto* application = QCoreApplication::instance();
  if (application == nullptr || application->thread() != QThread::currentThread()) {
    platform::fatalError("QtMainLoop must be made on the thread of the QCoreApplication, after it");
  }
  EventLoop::useHostThreadForMain();
  const int descriptor = EventLoop::main().readinessDescriptor();
  notifier_ = std::make_unique<QSocketNotifier>(descriptor, QSocketNotifier::Read);
  QObject::connect(notifier_.get(), &QSocketNotifier::activated, [this] { turn(); });
  // More was ready than one turn's budget allowed: go on once Qt's own
  // pending events have had their turn.
  again_ = std::make_unique<QTimer>();
  again_->setSingleShot(true);
  again_->setInterval(0);
  QObject::connect(again_.get(), &QTimer::timeout, [this] { turn(); });
  again_->start();  // whatever was queued before Qt's loop started
}

QtMainLoop::~QtMainLoop() {
  notifier_->setEnabled(false);
  again_->stop();
}

void QtMainLoop::turn() {
  const auto start = std::chrono::steady_clock::now();
  const bool more = EventLoop::main().runReady(turnBudget_);
  ++turns_;
  longestTurn_ = std::max(longestTurn_, std::chrono::steady_clock::now() - start);
  if (more) {
    again_->start();
  }
}

}  // namespace vantor::qt
