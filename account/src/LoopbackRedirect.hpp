#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <string_view>

#include <boost/asio/ip/tcp.hpp>

namespace vantor::account::detail {

// The loopback redirect of native applications (RFC 8252, section 7.3): for
// one sign-in, an HTTP listener on an ephemeral port of 127.0.0.1 or ::1,
// never another interface, whose port goes into the redirect URI sent.
//
// It answers requests for other paths with 404 and keeps waiting; a request
// for the redirect's path whose `state` is not the sign-in's gets an error
// page, and it keeps waiting; the genuine one goes to the receiver, which
// answers the browser once the sign-in's outcome is known. Runs on the main
// event loop; make, use and drop it there.
class LoopbackRedirect : public std::enable_shared_from_this<LoopbackRedirect> {
 public:
  // Answers the browser: a page saying the user is signed in and may close
  // the tab, or what went wrong.
  using Reply = std::function<void(bool signedIn, const std::string& message)>;
  // Takes the genuine redirect and answers true, or answers false after
  // replying with what went wrong: the listener then keeps waiting.
  using Receiver = std::function<bool(const std::string& url, Reply reply)>;

  // True for "http://127.0.0.1/…" and "http://[::1]/…" with no port or port 0.
  static bool wanted(std::string_view redirectURI);

  // Listens for `redirectURI` (for which `wanted` holds); none, logged, when
  // it cannot.
  static std::shared_ptr<LoopbackRedirect> listen(std::string_view redirectURI);

  ~LoopbackRedirect();
  LoopbackRedirect(const LoopbackRedirect&) = delete;
  LoopbackRedirect& operator=(const LoopbackRedirect&) = delete;

  // The redirect URI with the listener's port.
  [[nodiscard]] const std::string& redirectURI() const noexcept { return redirectURI_; }
  [[nodiscard]] std::uint16_t port() const noexcept { return port_; }

  // The sign-in's `state`, and where its genuine redirect goes.
  void expect(std::string state, Receiver receiver);

  // Stops listening and drops waiting connections; a page being answered
  // is still sent.
  void stop();

 private:
  class Connection;
  LoopbackRedirect(boost::asio::ip::tcp::acceptor acceptor, std::string redirectURI, std::string origin,
                   std::string path);
  void accept();
  void handle(const std::shared_ptr<Connection>& connection, const std::string& target);

  boost::asio::ip::tcp::acceptor acceptor_;
  std::string redirectURI_;
  std::string origin_;  // "http://127.0.0.1:<port>"
  std::string path_;
  std::uint16_t port_ = 0;
  std::optional<std::string> state_;
  Receiver receiver_;
  bool taken_ = false;
  std::set<std::shared_ptr<Connection>> waiting_;
};

}  // namespace vantor::account::detail
