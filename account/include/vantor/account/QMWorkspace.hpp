#pragma once

#include <functional>
#include <string>

namespace vantor::account {

/// Opens URLs in the user's default browser.
///
/// The default opener starts `xdg-open` (Linux) or `open` (macOS) with the URL
/// as its only argument, without a shell, and does not wait for the browser.
/// Tests and hosts with their own browser handling replace it with
/// `setOpener`.
///
/// Thread safety: every member may be called from any thread. The opener is
/// called on the thread that calls `open`, with no lock held.
class QMWorkspace {
 public:
  /// Returns true when the URL was handed over (not that a page loaded).
  using Opener = std::function<bool(const std::string& url)>;

  QMWorkspace() = delete;

  /// Hands `url` to the current opener. An empty `url` opens nothing and
  /// returns false.
  static bool open(const std::string& url);

  /// Replaces the opener for later calls of `open`; an empty function
  /// restores the default.
  static void setOpener(Opener opener);

  /// The default opener. Returns false when the helper program could not be
  /// started; its exit status is collected in the background and logged
  /// when it is not 0.
  static bool openInDefaultBrowser(const std::string& url);
};

}  // namespace vantor::account
