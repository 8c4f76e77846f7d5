#pragma once

#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>

#include <boost/signals2/connection.hpp>
#include <boost/signals2/signal.hpp>

namespace vantor::account {

/// Named notifications without payload, as the account layer announces
/// account changes to whoever listens.
///
/// Observers are Boost.Signals2 slots. The connection returned by
/// `addObserver` is the observer's token: keep it in a
/// `boost::signals2::scoped_connection` and the observer is removed when the
/// token goes.
///
/// Thread safety: every member may be called from any thread. Observers run
/// on the main event loop, one at a time, in the order they were added.
class QMNotificationCenter {
 public:
  using Observer = std::function<void()>;

  /// The process-wide centre; never destroyed.
  static QMNotificationCenter& defaultCenter();

  QMNotificationCenter() = default;
  QMNotificationCenter(const QMNotificationCenter&) = delete;
  QMNotificationCenter& operator=(const QMNotificationCenter&) = delete;

  /// Adds `observer` for the notification `name`. It is called on the main
  /// event loop for each later `post`, at once when the post happens on the
  /// loop thread and queued otherwise; a queued call is dropped when the
  /// token has been released meanwhile. An empty `observer` is ignored and
  /// yields a disconnected token.
  [[nodiscard]] boost::signals2::connection addObserver(const std::string& name,
                                                        Observer observer);

  /// Notifies the observers of `name`, from any thread; no observer is not an
  /// error.
  void post(const std::string& name);

 private:
  using Signal = boost::signals2::signal<void()>;

  std::shared_ptr<Signal> signalFor(const std::string& name);

  std::mutex mutex_;
  std::map<std::string, std::shared_ptr<Signal>, std::less<>> signals_;
};

}  // namespace vantor::account
