#pragma once

#include <chrono>
#include <filesystem>
#include <functional>
#include <memory>
#include <string>

namespace vantor::account {

/// One running copy of the application per user. When the browser starts a
/// second copy with the sign-in's redirect URL (see QMURLSchemeRegistration),
/// that copy hands the URL to the running one and exits, as in
/// examples/desktop_signin.cpp:
//   // At start, after QMHostApplication::setBundleIdentifier("com.example.app"):
//   if (argc > 1 && QMSingleInstance::handOff(argv[1])) {
//     return 0;  // the running copy took the URL
//   }
//   QMSingleInstance instance([](const std::string& url) {
//     QMQuelmoConnectController::shared().handleOAuthResponse(url);
//   });
/// With no copy running, the new copy handles its URL itself.
///
/// The channel is a Unix socket named after the bundle identifier in
/// `$XDG_RUNTIME_DIR`, which only its user can enter (without it, a folder of
/// the user's own, mode 0700, in the temporary folder). The socket is the
/// user's alone (0600), and each side checks that the other runs as the same
/// user. What arrives is only handed to the receiver: a URL that is not the
/// pending sign-in's changes nothing, as the controller checks it.
///
/// Thread safety: `handOff` may be called from any thread and blocks it for
/// at most `timeout`. Make and destroy a QMSingleInstance on any thread; its
/// receiver runs on the main event loop (the GUI thread with a GUI
/// integration).
class QMSingleInstance {
 public:
  using Receiver = std::function<void(const std::string& url)>;

  /// Gives `url` to the running copy. True when that copy took it; false
  /// when none is running, or it did not answer within `timeout`.
  static bool handOff(const std::string& url, std::chrono::milliseconds timeout = std::chrono::seconds(5));

  /// Becomes the running copy: takes the URLs later copies hand over and
  /// calls `receiver` with each on the main event loop (an exception it
  /// throws is logged and dropped). Throws std::runtime_error when another
  /// copy is running (hand off to it instead) or the socket cannot be made.
  explicit QMSingleInstance(Receiver receiver);
  /// Stops taking URLs and removes the socket.
  ~QMSingleInstance();
  QMSingleInstance(const QMSingleInstance&) = delete;
  QMSingleInstance& operator=(const QMSingleInstance&) = delete;

  /// The socket for the current bundle identifier and environment. Throws
  /// std::runtime_error without a bundle identifier.
  [[nodiscard]] static std::filesystem::path socketPath();

 private:
  class Listener;
  std::shared_ptr<Listener> listener_;
};

}  // namespace vantor::account
