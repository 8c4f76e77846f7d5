#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

namespace vantor::testing {

/// Debian's `tinyproxy`, an HTTP proxy, run for a test: on 127.0.0.1 and a
/// free port, in the foreground, with a configuration file and a log in a
/// scratch folder of its own that goes with the object.
///
/// It accepts clients from 127.0.0.1 only and tunnels CONNECT requests to
/// the ports of `Options::connectPorts` (any port when empty; other ports
/// get "403 Access violation"), and asks for the user and password of
/// `Options::basicAuth` when given (else "407").
///
/// One thread uses an object.
class TinyProxy {
 public:
  struct Options {
    std::vector<std::uint16_t> connectPorts = {};
    /// "user:password" that clients must present.
    std::optional<std::string> basicAuth = std::nullopt;
  };

  /// Starts tinyproxy and waits until it listens. Throws std::runtime_error
  /// when it is not installed or does not listen within a few seconds.
  TinyProxy();
  explicit TinyProxy(Options options);
  /// Stops it (SIGTERM, then SIGKILL) and removes the scratch folder.
  ~TinyProxy();

  TinyProxy(const TinyProxy&) = delete;
  TinyProxy& operator=(const TinyProxy&) = delete;

  [[nodiscard]] std::uint16_t port() const { return port_; }
  /// "http://127.0.0.1:<port>", with "user:password@" when `basicAuth` is set
  /// and `withCredentials`.
  [[nodiscard]] std::string url(bool withCredentials = true) const;

  /// Tunnels that the proxy has opened to a server so far (from its log).
  [[nodiscard]] std::size_t tunnelsOpened() const;
  /// CONNECT requests it has received so far, whatever came of them.
  [[nodiscard]] std::size_t connectRequests() const;
  /// Its whole log, for failure messages.
  [[nodiscard]] std::string log() const;

 private:
  std::size_t countInLog(const std::string& text) const;

  Options options_;
  std::filesystem::path directory_;
  std::uint16_t port_ = 0;
  pid_t pid_ = -1;
};

}  // namespace vantor::testing
