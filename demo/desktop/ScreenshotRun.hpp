#pragma once

#include <QObject>
#include <QString>
#include <QTimer>
#include <QWidget>
#include <chrono>
#include <functional>

namespace vantor::desktop {

/// Drives a `DesktopWindow` as a user would, without a display: waits until
/// the presence list shows `user`, types a message and sends it, waits until
/// it is shown and the indicator says "connected", then saves a PNG of the
/// whole window to `file`. Reports 0, or 1 with the reason when a step does
/// not happen within `limit` or the file cannot be written.
class ScreenshotRun : public QObject {
 public:
  using Done = std::function<void(int status, const QString& reason)>;

  ScreenshotRun(QWidget& window, QString user, QString file, std::chrono::milliseconds limit, Done done);

  /// The message it sends.
  [[nodiscard]] QString message() const { return "Hello from " + user_; }

 private:
  void step();
  void finish(int status, const QString& reason);

  QWidget& window_;
  QString user_;
  QString file_;
  Done done_;
  QTimer poll_;
  QTimer deadline_;
  bool sent_ = false;
  bool finished_ = false;
};

}  // namespace vantor::desktop
