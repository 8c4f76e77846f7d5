#pragma once

#include <string_view>

#include <vantor/util/QMLogger.hpp>

namespace vantor::util {

/// The framework's module name, under which its messages reach the shared
/// logger.
inline constexpr std::string_view frameworkModuleName = "VantorClient";

/// The framework's own log category, made on first use (thread-safe). Each
/// message logged on it goes to the shared logger `log()`, forced, so it is
/// written whatever the shared logger's minimum level, and without a source
/// location (forwarded messages name this library's logging source file,
/// `frameworkModuleName` and a fixed line, none of which is shown).
///
/// Thread safety: may be called, and the category used, from any thread.
QMLogger& logAccounts();

}  // namespace vantor::util
