#pragma once

#include <string>

namespace vantor::account {

/// Tells the account layer which application it works for; the stores key
/// their files by the bundle identifier.
///
/// Thread safety: implementations answer from any thread.
class QMAccountAppIdentifyingProtocol {
 public:
  [[nodiscard]] virtual std::string appName() const = 0;
  [[nodiscard]] virtual std::string bundleIdentifier() const = 0;

 protected:
  ~QMAccountAppIdentifyingProtocol() = default;
};

}  // namespace vantor::account
