#include "vantor/util/LogAccounts.hpp"

#include <string>

#include "vantor/util/QMSharedLogger.hpp"

namespace vantor::util {
namespace {

// The location every forwarded message carries. It is never shown
// (showLocation is off), so one fixed line stands for the whole category
// instead of each caller's.
constexpr int forwardedLine = 26;

void forwardToSharedLog(QMLogger::Level level, const std::string& message) {
  log().print(level, /*force=*/true, /*showLocation=*/false, __FILE__, frameworkModuleName,
              forwardedLine, [&message] { return message; });
}

}  // namespace

QMLogger& logAccounts() {
  // A function-local static is initialised exactly once even when the first
  // calls race, so the category gets exactly one destination. Never
  // destroyed, like the shared logger, so logging stays valid during exit.
  static QMLogger* const category = [] {
    auto* logger = new QMLogger();
    logger->addDestination(forwardToSharedLog);
    return logger;
  }();
  return *category;
}

}  // namespace vantor::util
