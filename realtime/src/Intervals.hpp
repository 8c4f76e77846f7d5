#pragma once

#include <cmath>
#include <string>
#include <string_view>

#include "vantor/platform/Fatal.hpp"
#include "vantor/realtime/Socket.hpp"

namespace vantor::realtime::detail {

/// The longest interval a time-out or heartbeat may be set to: some 31
/// years, well inside what the timers can represent.
inline constexpr double longestInterval = 1e9;

/// Stops the process, naming `setting` and the value, unless `seconds` is a
/// finite number from 0 (excluded when `positive`) to `longestInterval`.
/// Checked where the value is set, so that the mistake is reported at the
/// call that made it and not at a later open or in a timer.
inline void requireInterval(std::string_view setting, double seconds, bool positive = false) {
  const bool valid = std::isfinite(seconds) && (positive ? seconds > 0.0 : seconds >= 0.0) &&
                     seconds <= longestInterval;
  if (!valid) {
    platform::fatalError(std::string(setting) + " must be a finite number of seconds, " +
                         (positive ? "above 0" : "0 or more") + " and at most 1e9; got " +
                         shortestDecimal(seconds));
  }
}

}  // namespace vantor::realtime::detail
