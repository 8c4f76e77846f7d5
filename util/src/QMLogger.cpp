#include "vantor/util/QMLogger.hpp"

#include <utility>

namespace vantor::util {

QMLogger::QMLogger() : destinations_(std::make_shared<const Destinations>()) {}

QMLogger::~QMLogger() = default;

void QMLogger::addDestination(Destination destination) {
  if (!destination) {
    return;
  }
  std::lock_guard lock(mutex_);
  auto extended = std::make_shared<Destinations>(*destinations_);
  extended->push_back(std::move(destination));
  destinations_ = std::move(extended);
}

void QMLogger::log(Level level, const std::string& message) const {
  std::shared_ptr<const Destinations> snapshot;
  {
    std::lock_guard lock(mutex_);
    snapshot = destinations_;
  }
  for (const auto& destination : *snapshot) {
    destination(level, message);
  }
}

}  // namespace vantor::util
