#pragma once

#include <string_view>

namespace vantor::realtime::detail {

/// True when `bytes` is well-formed UTF-8.
bool isValidUtf8(std::string_view bytes) noexcept;

/// Writes `line` and a line break to standard output with a plain write,
/// not through any logger, and flushes it.
void writeLineToStandardOutput(std::string_view line);

}  // namespace vantor::realtime::detail
