#pragma once

namespace vantor::realtime {

/// Errors of the socket itself.
enum class SocketError { abnormalClosureError };

}  // namespace vantor::realtime
