#pragma once

#include <boost/system/result.hpp>
#include <functional>
#include <optional>
#include <string>
#include <string_view>

#include "vantor/platform/HttpProxy.hpp"
#include "vantor/platform/NetworkTarget.hpp"

namespace boost::asio {
class io_context;
}

namespace vantor::platform {

/// Whether and through which HTTP proxy client connections go.
///
/// By default the proxy comes from the environment, as on most desktops:
/// `https_proxy` for TLS targets (wss, https), `http_proxy` for the others
/// (ws, http), and `no_proxy` for the hosts reached directly; the lower-case
/// name wins over the upper-case one, and an empty value counts as unset.
/// `none()` ignores the environment and always connects directly;
/// `explicitProxy()` names the proxy for every target.
///
/// `no_proxy` is a comma-separated list of host names, domains and
/// addresses, each optionally with ":port". An entry matches the host itself
/// and, on a label boundary, any host below it ("example.com" and
/// ".example.com" both match "api.example.com", not "badexample.com"). "*"
/// matches every host. Loopback hosts are not exempt unless listed.
class ProxySettings {
 public:
  enum class Mode { fromEnvironment, none, explicitProxy };

  /// Looks up an environment variable: its value, or none when not set.
  using Environment = std::function<std::optional<std::string>(std::string_view name)>;

  /// Proxies from the process environment.
  ProxySettings() = default;

  /// Proxies from `environment`, or from the process environment when it is empty.
  static ProxySettings fromEnvironment(Environment environment = nullptr);
  /// Always direct.
  static ProxySettings none();
  /// Through the proxy at `url` (see `HttpProxy::parse`) except for the
  /// targets that `noProxy` (as `no_proxy`) exempts.
  static ProxySettings explicitProxy(std::string url, std::string noProxy = {});

  [[nodiscard]] Mode mode() const noexcept { return mode_; }

  /// The proxy for a connection to `target`: none to connect directly, or
  /// ProxyError::invalidProxyUrl when the proxy that applies does not read.
  [[nodiscard]] boost::system::result<std::optional<HttpProxy>> proxyFor(const NetworkTarget& target) const;

  /// True when the desktop is asked: proxies from the environment, and none
  /// of `http_proxy`, `https_proxy` and `no_proxy` (either case) is set.
  /// An application started from a desktop menu does not see the shell's
  /// variables; the desktop's settings (GNOME's, KDE's, a PAC file, WPAD)
  /// come through libproxy instead, when the library was built with it.
  [[nodiscard]] bool asksDesktop() const;

  using Resolved = std::function<void(boost::system::result<std::optional<HttpProxy>>)>;
  /// As `proxyFor`, without blocking the thread that runs `context`: at
  /// once (before returning) when the settings decide, otherwise the
  /// desktop is asked on a thread of its own (a PAC file or WPAD may take
  /// the network) and `done` runs on `context`. A desktop proxy that is not
  /// a plain HTTP one (SOCKS) is not supported: the connection goes direct.
  void resolve(const NetworkTarget& target, boost::asio::io_context& context, Resolved done) const;

  /// Whether the `no_proxy`-style `list` exempts `host` on `port`.
  static bool exempts(std::string_view list, std::string_view host, std::string_view port);

 private:
  Mode mode_ = Mode::fromEnvironment;
  Environment environment_;
  std::string url_;
  std::string noProxy_;
};

}  // namespace vantor::platform
