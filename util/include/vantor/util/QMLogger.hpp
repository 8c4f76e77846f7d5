#pragma once

#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace vantor::util {

/// A log category: messages logged on it go, with their level, to every
/// destination added to it. It filters nothing itself; where a message ends
/// up, and whether it is written, is up to the destinations.
///
/// Destinations are called on the logging thread, in the order they were
/// added, without any lock of the logger held (a destination may log again).
///
/// Thread safety: every member may be called from any thread, concurrently.
/// A message logged while a destination is being added may or may not reach
/// the new destination.
class QMLogger {
 public:
  /// Severity, from the chattiest to the most severe.
  enum class Level { verbose, debug, info, warning, error };

  using Destination = std::function<void(Level level, const std::string& message)>;

  QMLogger();
  QMLogger(const QMLogger&) = delete;
  QMLogger& operator=(const QMLogger&) = delete;
  ~QMLogger();

  /// Adds a destination for all later messages. An empty function is
  /// ignored.
  void addDestination(Destination destination);

  /// Hands `message` at `level` to every destination.
  void log(Level level, const std::string& message) const;

  void verbose(const std::string& message) const { log(Level::verbose, message); }
  void debug(const std::string& message) const { log(Level::debug, message); }
  void info(const std::string& message) const { log(Level::info, message); }
  void warning(const std::string& message) const { log(Level::warning, message); }
  void error(const std::string& message) const { log(Level::error, message); }

 private:
  using Destinations = std::vector<Destination>;

  mutable std::mutex mutex_;
  // Replaced, never changed in place, so logging works on a snapshot and
  // calls destinations with the mutex released.
  std::shared_ptr<const Destinations> destinations_;
};

}  // namespace vantor::util
