#pragma once

#include <string_view>

namespace vantor::platform {

/// Stops the process for a programming error: writes `message` and a line
/// break to standard error, then calls `std::abort()`. It cannot be caught.
[[noreturn]] void fatalError(std::string_view message) noexcept;

}  // namespace vantor::platform
