#pragma once

#include <cstdint>

namespace vantor::realtime {

/// What a socket has counted since it was made, while it collected metrics
/// (`Socket::setCollectsMetrics`).
struct ConnectionMetrics {
  std::uint64_t framesIn = 0;   ///< text frames the transport delivered
  std::uint64_t bytesIn = 0;    ///< their bytes, before decoding
  std::uint64_t framesOut = 0;  ///< frames handed to the transport
  std::uint64_t bytesOut = 0;   ///< their bytes, after encoding
  std::uint64_t reconnects = 0;  ///< reconnect attempts made on the back-off
  std::uint64_t rejoins = 0;     ///< joins that channels sent again after their first
  /// Push outcomes by kind; joins and leaves are pushes too.
  std::uint64_t pushesOk = 0;
  std::uint64_t pushesError = 0;
  std::uint64_t pushesTimeout = 0;
  /// Frames and presence data dropped because they would otherwise stop the
  /// process (`Socket::setDropsMalformedInput`).
  std::uint64_t malformedDropped = 0;
  /// Resumes from sleep, and network changes (offline, online, another
  /// connection), that made the socket check its connection or pause.
  std::uint64_t resumes = 0;
  std::uint64_t networkChanges = 0;
};

}  // namespace vantor::realtime
