#include "ScreenshotRun.hpp"

#include <QLabel>
#include <QLineEdit>
#include <QListWidget>
#include <QPixmap>
#include <QPushButton>

namespace vantor::desktop {

namespace {

bool shows(const QListWidget* list, const QString& text) {
  return list != nullptr && !list->findItems(text, Qt::MatchExactly).isEmpty();
}

}  // namespace

ScreenshotRun::ScreenshotRun(QWidget& window, QString user, QString file, std::chrono::milliseconds limit,
                             Done done)
    : window_(window), user_(std::move(user)), file_(std::move(file)), done_(std::move(done)) {
  QObject::connect(&poll_, &QTimer::timeout, this, [this] { step(); });
  poll_.start(50);
  deadline_.setSingleShot(true);
  QObject::connect(&deadline_, &QTimer::timeout, this, [this, limit] {
    const QString step = sent_ ? "the message \"" + message() + "\" to be shown while connected"
                               : user_ + " to appear in the presence list";
    finish(1, QString("gave up after %1 s waiting for %2").arg(limit.count() / 1000.0).arg(step));
  });
  deadline_.start(limit);
}

void ScreenshotRun::step() {
  if (!sent_) {
    if (shows(window_.findChild<QListWidget*>("presence"), user_)) {
      window_.findChild<QLineEdit*>("input")->setText(message());
      window_.findChild<QPushButton*>("send")->click();
      sent_ = true;
    }
    return;
  }
  const auto* indicator = window_.findChild<QLabel*>("indicator");
  if (shows(window_.findChild<QListWidget*>("messages"), user_ + ": " + message()) &&
      indicator->text() == "connected") {
    if (!window_.grab().save(file_, "PNG")) {
      finish(1, "could not write " + file_);
      return;
    }
    finish(0, {});
  }
}

void ScreenshotRun::finish(int status, const QString& reason) {
  if (finished_) {
    return;
  }
  finished_ = true;
  poll_.stop();
  deadline_.stop();
  done_(status, reason);
}

}  // namespace vantor::desktop
