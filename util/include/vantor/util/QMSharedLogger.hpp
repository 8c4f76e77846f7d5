#pragma once

#include <atomic>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <type_traits>

#include <spdlog/fwd.h>

#include <vantor/util/QMLogger.hpp>

namespace vantor::util {

/// The process-wide logger that categories such as `logAccounts()` funnel
/// into. It drops messages below its minimum level unless they are forced,
/// and writes the rest through an spdlog logger (by default one of its own
/// that writes to standard error).
///
/// Thread safety: every member may be called from any thread, concurrently.
/// Messages are written on the calling thread.
class QMSharedLogger {
 public:
  using Level = QMLogger::Level;

  /// Writes to standard error; minimum level `info`.
  QMSharedLogger();
  QMSharedLogger(const QMSharedLogger&) = delete;
  QMSharedLogger& operator=(const QMSharedLogger&) = delete;
  ~QMSharedLogger();

  /// Writes the text that `message()` returns at `level`, if `level` reaches
  /// the minimum level or `force` is set; otherwise `message` is not called,
  /// so building an expensive text costs nothing when it is dropped. With
  /// `showLocation` the text is prefixed with "[file:line function] ";
  /// without it, `file`, `function` and `line` are not written.
  template <typename Message>
    requires std::is_invocable_r_v<std::string, Message&>
  void print(Level level, bool force, bool showLocation, std::string_view file,
             std::string_view function, int line, Message&& message) const {
    if (!force && level < minimumLevel()) {
      return;
    }
    std::string text = std::invoke(message);
    if (showLocation) {
      text = locationPrefix(file, function, line) + text;
    }
    write(level, text);
  }

  void setMinimumLevel(Level level) noexcept;
  [[nodiscard]] Level minimumLevel() const noexcept;

  /// Sends later messages to `logger` instead, for example a host's own or
  /// one with a capturing sink; null restores the standard-error logger.
  /// Filtering stays with this object: `logger`'s own level is set to trace
  /// so that it does not drop forced messages.
  void setSpdlogLogger(std::shared_ptr<spdlog::logger> logger);
  [[nodiscard]] std::shared_ptr<spdlog::logger> spdlogLogger() const;

 private:
  static std::string locationPrefix(std::string_view file, std::string_view function, int line);
  void write(Level level, const std::string& text) const;

  std::atomic<Level> minimumLevel_{Level::info};
  mutable std::mutex mutex_;
  std::shared_ptr<spdlog::logger> logger_;
};

/// The shared logger. It lives until the process ends (it is never
/// destroyed, so code running during static destruction may still log).
QMSharedLogger& log();

}  // namespace vantor::util
