#include "vantor/util/QMSharedLogger.hpp"

#include <utility>

#include <spdlog/logger.h>
#include <spdlog/sinks/stdout_color_sinks.h>

namespace vantor::util {
namespace {

std::shared_ptr<spdlog::logger> makeStandardErrorLogger() {
  // Deliberately not registered with spdlog's registry, so the host's own
  // logger names and registry-wide settings stay untouched.
  auto logger = std::make_shared<spdlog::logger>(
      "vantor", std::make_shared<spdlog::sinks::stderr_color_sink_mt>());
  logger->set_level(spdlog::level::trace);
  return logger;
}

spdlog::level::level_enum toSpdlog(QMLogger::Level level) {
  switch (level) {
    case QMLogger::Level::verbose:
      return spdlog::level::trace;
    case QMLogger::Level::debug:
      return spdlog::level::debug;
    case QMLogger::Level::info:
      return spdlog::level::info;
    case QMLogger::Level::warning:
      return spdlog::level::warn;
    case QMLogger::Level::error:
      return spdlog::level::err;
  }
  return spdlog::level::err;
}

}  // namespace

QMSharedLogger::QMSharedLogger() : logger_(makeStandardErrorLogger()) {}

QMSharedLogger::~QMSharedLogger() = default;

void QMSharedLogger::setMinimumLevel(Level level) noexcept { minimumLevel_.store(level); }

QMSharedLogger::Level QMSharedLogger::minimumLevel() const noexcept {
  return minimumLevel_.load();
}

void QMSharedLogger::setSpdlogLogger(std::shared_ptr<spdlog::logger> logger) {
  if (logger) {
    logger->set_level(spdlog::level::trace);
  } else {
    logger = makeStandardErrorLogger();
  }
  std::lock_guard lock(mutex_);
  logger_ = std::move(logger);
}

std::shared_ptr<spdlog::logger> QMSharedLogger::spdlogLogger() const {
  std::lock_guard lock(mutex_);
  return logger_;
}

std::string QMSharedLogger::locationPrefix(std::string_view file, std::string_view function,
                                           int line) {
  std::string prefix = "[";
  prefix.append(file).append(":").append(std::to_string(line));
  prefix.append(" ").append(function).append("] ");
  return prefix;
}

void QMSharedLogger::write(Level level, const std::string& text) const {
  // Write outside the lock: a slow sink must not hold up setSpdlogLogger.
  spdlogLogger()->log(toSpdlog(level), spdlog::string_view_t(text));
}

QMSharedLogger& log() {
  static auto* const shared = new QMSharedLogger();
  return *shared;
}

}  // namespace vantor::util
