#include "vantor/qt/QtMainLoop.hpp"

#include <QCoreApplication>
#include <QSocketNotifier>
#include <QThread>
#include <QTimer>

#include "vantor/platform/Fatal.hpp"

namespace vantor::qt {

namespace {

std::chrono::microseconds onTheApplicationThread(std::chrono::microseconds turnBudget) {
  auto* application = QCoreApplication::instance();
  if (application == nullptr || application->thread() != QThread::currentThread()) {
    platform::fatalError("QtMainLoop must be made on the thread of the QCoreApplication, after it");
  }
  return turnBudget;
}

}  // namespace

QtMainLoop::QtMainLoop(std::chrono::microseconds turnBudget) : turns_(onTheApplicationThread(turnBudget)) {
  notifier_ = std::make_unique<QSocketNotifier>(turns_.descriptor(), QSocketNotifier::Read);
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
  if (turns_.run()) {
    again_->start();
  }
}

}  // namespace vantor::qt
