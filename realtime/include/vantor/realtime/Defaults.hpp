#pragma once

#include <boost/json/value.hpp>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace vantor::platform {
class DispatchQueue;
}

namespace vantor::realtime {

/// The client's constants and tuning values. Sockets and channels copy their
/// initial option values from here; change them per instance.
struct Defaults {
  Defaults() = delete;

  /// Default time-out of a push and of a channel join, in seconds.
  static constexpr double timeoutInterval = 10.0;
  /// Default interval between heartbeats, in seconds.
  static constexpr double heartbeatInterval = 30.0;
  /// The leeway given to the repeating heartbeat timer.
  static constexpr std::chrono::nanoseconds heartbeatLeeway = std::chrono::milliseconds(10);
  /// The serializer version, sent as the `vsn` query item.
  static constexpr std::string_view vsn = "2.0.0";

  /// Socket reconnect delay in seconds for attempt `tries` (from 1):
  /// 0.01, 0.05, 0.1, 0.15, 0.2, 0.25, 0.5, 1.0, 2.0, then 5.0.
  /// An attempt below 1 is a programming error and stops the process.
  static double reconnectSteppedBackOff(std::int64_t tries);

  /// The same table with full jitter: a delay drawn uniformly between 0 and
  /// `reconnectSteppedBackOff(tries)`. For `Socket::setReconnectAfter` when
  /// many clients connect to one server: after a restart they then come
  /// back spread over each step instead of all at its end.
  static double reconnectJitteredBackOff(std::int64_t tries);

  /// Channel rejoin delay in seconds for attempt `tries` (from 1):
  /// 1.0, 2.0, 5.0, then 10.0. An attempt below 1 stops the process.
  static double rejoinSteppedBackOff(std::int64_t tries);

  /// Compact JSON text of `value`. A value that cannot be written as JSON
  /// (a number that is not finite, a string that is not UTF-8) is a
  /// programming error and stops the process.
  static std::string encode(const boost::json::value& value);

  /// The deepest nesting of arrays and objects that `decode` accepts,
  /// counting the frame's own array as the first level.
  static constexpr std::size_t maxNestingDepth = 1024;

  /// Parses JSON text whose top level is an array or an object; anything
  /// else, text that does not parse, or text nested deeper than
  /// `maxNestingDepth`, gives no value.
  static std::optional<boost::json::value> decode(std::string_view bytes);

  /// The serial queue labelled "com.phoenix.socket.heartbeat" on which
  /// heartbeat timers fire; made once, on first use.
  static platform::DispatchQueue& heartbeatQueue();
};

}  // namespace vantor::realtime
