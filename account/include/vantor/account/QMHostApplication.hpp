#pragma once

#include <string>

namespace vantor::account {

/// What the account layer knows about the host application: its display
/// name and its bundle identifier (a reverse-DNS name such as
/// "com.example.notes"). The host sets both at start-up, before it first uses
/// the sign-in controller, which reads them once when it is made.
///
/// Defaults: the name is the file name of the running executable, the bundle
/// identifier is empty.
///
/// Thread safety: every member may be called from any thread.
class QMHostApplication {
 public:
  QMHostApplication() = delete;

  [[nodiscard]] static std::string name();
  [[nodiscard]] static std::string bundleIdentifier();

  static void setName(std::string name);
  static void setBundleIdentifier(std::string bundleIdentifier);
};

}  // namespace vantor::account
