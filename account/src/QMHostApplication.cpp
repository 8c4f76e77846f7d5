#include "vantor/account/QMHostApplication.hpp"

#include <algorithm>
#include <cctype>
#include <stdexcept>

#include "BundleFileName.hpp"

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

namespace detail {

std::string bundleIdentifierForFileNames(const std::string& forWhat) {
  const auto bundle = QMHostApplication::bundleIdentifier();
  const bool usable = !bundle.empty() && std::all_of(bundle.begin(), bundle.end(), [](char c) {
    return std::isalnum(static_cast<unsigned char>(c)) != 0 || c == '.' || c == '-' || c == '_';
  });
  if (!usable) {
    throw std::runtime_error("the application needs a bundle identifier (QMHostApplication) " + forWhat);
  }
  return bundle;
}

}  // namespace detail

}  // namespace vantor::account
