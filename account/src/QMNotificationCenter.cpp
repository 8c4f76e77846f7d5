#include "vantor/account/QMNotificationCenter.hpp"

#include "vantor/platform/EventLoop.hpp"

namespace vantor::account {

using platform::EventLoop;

QMNotificationCenter& QMNotificationCenter::defaultCenter() {
  static QMNotificationCenter* const center = new QMNotificationCenter();
  return *center;
}

std::shared_ptr<QMNotificationCenter::Signal> QMNotificationCenter::signalFor(
    const std::string& name) {
  std::lock_guard lock(mutex_);
  auto& signal = signals_[name];
  if (!signal) {
    signal = std::make_shared<Signal>();
  }
  return signal;
}

boost::signals2::connection QMNotificationCenter::addObserver(const std::string& name,
                                                              Observer observer) {
  if (!observer) {
    return {};
  }
  auto shared = std::make_shared<const Observer>(std::move(observer));
  return signalFor(name)->connect_extended(
      [shared](const boost::signals2::connection& connection) {
        EventLoop::main().dispatch([shared, connection] {
          // A queued delivery for an observer whose token has gone is dropped.
          if (connection.connected()) {
            (*shared)();
          }
        });
      });
}

void QMNotificationCenter::post(const std::string& name) { (*signalFor(name))(); }

}  // namespace vantor::account
