#pragma once

#include <filesystem>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace vantor::account {

/// The application as the Linux desktop's handler of its URL scheme, as
/// freedesktop.org defines it, so that the browser hands the sign-in's
/// redirect ("com.example.app:/qmaccounts/quelmoconnect?code=…") back to
/// the application: a desktop entry named after the bundle identifier
/// (QMHostApplication) with `MimeType=x-scheme-handler/<scheme>;` and an
/// `Exec` line that takes the URL, made the default handler of the scheme in
/// `mimeapps.list`. The browser then starts the application with the URL;
/// QMSingleInstance carries it to the copy that is running
/// (examples/desktop_signin.cpp):
//   QMURLSchemeRegistration::registerHandler("com.example.app", {"/usr/bin/example-app"});
///
/// Only files in the user's XDG folders are written: `$XDG_DATA_HOME`
/// (default ~/.local/share) and `$XDG_CONFIG_HOME` (default ~/.config).
///
/// Thread safety: every member may be called from any thread; registering
/// and unregistering the same scheme at once from two threads or processes
/// is not supported.
class QMURLSchemeRegistration {
 public:
  QMURLSchemeRegistration() = delete;

  /// The files a registration writes.
  struct Files {
    /// $XDG_DATA_HOME/applications/<bundle identifier>.desktop
    std::filesystem::path desktopEntry;
    /// $XDG_CONFIG_HOME/mimeapps.list
    std::filesystem::path mimeApps;
  };

  /// The scheme of a custom-scheme redirect URI: "com.example.app" for
  /// "com.example.app:/qmaccounts/quelmoconnect". None for http, https and
  /// text that is not a URI.
  [[nodiscard]] static std::optional<std::string> schemeOf(std::string_view redirectURI);

  /// Where the registration's files are for the current environment.
  /// Throws std::runtime_error without a bundle identifier, or without
  /// `$HOME` when an XDG variable is unset.
  [[nodiscard]] static Files files();

  /// Makes the application, started as `command` (program and arguments;
  /// the URL is added as the last argument), the default handler of
  /// `scheme`. Idempotent: registering again rewrites the same two entries.
  /// Another scheme already registered stays in the desktop entry; other
  /// lines of mimeapps.list stay as they are. Throws std::runtime_error with
  /// the reason when `scheme` or `command` is unusable or a file cannot be
  /// written.
  static Files registerHandler(const std::string& scheme, const std::vector<std::string>& command);

  /// Undoes `registerHandler` for `scheme`: removes the scheme's default from
  /// mimeapps.list when it names this application's entry, and the scheme
  /// from the entry, which goes when no scheme is left. True when anything
  /// was removed. Throws std::runtime_error when a file cannot be written.
  static bool unregisterHandler(const std::string& scheme);
};

}  // namespace vantor::account
