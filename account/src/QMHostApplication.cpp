#include "vantor/account/QMHostApplication.hpp"

#include <cerrno>
#include <cstdlib>
#include <mutex>
#include <optional>

namespace vantor::account {

namespace {

struct Record {
  std::mutex mutex;
  std::optional<std::string> name;
  std::string bundleIdentifier;
};

Record& record() {
  static Record* const shared = new Record();
  return *shared;
}

std::string executableName() {
#if defined(__APPLE__)
  const char* name = getprogname();
#else
  const char* name = program_invocation_short_name;
#endif
  return name != nullptr ? name : "";
}

}  // namespace

std::string QMHostApplication::name() {
  auto& shared = record();
  std::lock_guard lock(shared.mutex);
  if (!shared.name) {
    shared.name = executableName();
  }
  return *shared.name;
}

std::string QMHostApplication::bundleIdentifier() {
  auto& shared = record();
  std::lock_guard lock(shared.mutex);
  return shared.bundleIdentifier;
}

void QMHostApplication::setName(std::string name) {
  auto& shared = record();
  std::lock_guard lock(shared.mutex);
  shared.name = std::move(name);
}

void QMHostApplication::setBundleIdentifier(std::string bundleIdentifier) {
  auto& shared = record();
  std::lock_guard lock(shared.mutex);
  shared.bundleIdentifier = std::move(bundleIdentifier);
}

}  // namespace vantor::account
