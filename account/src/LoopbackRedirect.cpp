#include "LoopbackRedirect.hpp"

#include <boost/asio/read_until.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/asio/streambuf.hpp>
#include <boost/asio/write.hpp>
#include <boost/url/parse.hpp>
#include <chrono>

#include "OAuthAuthorizer.hpp"
#include "vantor/platform/EventLoop.hpp"
#include "vantor/util/LogAccounts.hpp"

namespace vantor::account::detail {

namespace asio = boost::asio;
using tcp = asio::ip::tcp;
using boost::system::error_code;

namespace {

// A request must arrive whole, headers included, within this and this size.
constexpr auto requestTime = std::chrono::seconds(10);
constexpr std::size_t requestLimit = 16 * 1024;

std::string escaped(std::string_view text) {
  std::string out;
  for (char c : text) {
    switch (c) {
      case '<': out += "&lt;"; break;
      case '>': out += "&gt;"; break;
      case '&': out += "&amp;"; break;
      case '"': out += "&quot;"; break;
      default: out += c;
    }
  }
  return out;
}

std::optional<boost::urls::url_view> loopbackRedirect(std::string_view redirectURI) {
  auto url = boost::urls::parse_absolute_uri(redirectURI);
  if (!url || url->scheme() != "http" || (url->has_port() && url->port_number() != 0)) {
    return std::nullopt;
  }
  const bool loopback = (url->host_type() == boost::urls::host_type::ipv4 &&
                         url->host_ipv4_address() == boost::urls::ipv4_address::loopback()) ||
                        (url->host_type() == boost::urls::host_type::ipv6 && url->host_ipv6_address().is_loopback());
  if (!loopback) {
    return std::nullopt;
  }
  return *url;
}

}  // namespace

// One browser connection: reads one request, answers it, closes.
class LoopbackRedirect::Connection : public std::enable_shared_from_this<Connection> {
 public:
  explicit Connection(tcp::socket socket) : socket_(std::move(socket)), timer_(socket_.get_executor()) {}

  template <class Handler>
  void read(Handler handler) {
    timer_.expires_after(requestTime);
    timer_.async_wait([weak = weak_from_this()](error_code error) {
      if (auto self = weak.lock(); self && !error) {
        self->close();
      }
    });
    asio::async_read_until(socket_, buffer_, "\r\n\r\n",
                           [self = shared_from_this(), handler = std::move(handler)](error_code error, std::size_t) {
                             self->timer_.cancel();
                             if (error) {
                               self->close();
                               return;
                             }
                             handler(self, self->requestTarget());
                           });
  }

  void respond(int status, std::string_view title, std::string_view message, std::string_view outcome) {
    const std::string body = "<!DOCTYPE html>\n<html><head><meta charset=\"utf-8\"><title>" + escaped(title) +
                             "</title></head>\n<body data-sign-in=\"" + std::string(outcome) + "\"><h1>" +
                             escaped(title) + "</h1>\n<p>" + escaped(message) + "</p></body></html>\n";
    const char* reason = status == 200 ? "OK" : status == 400 ? "Bad Request" : "Not Found";
    reply_ = "HTTP/1.1 " + std::to_string(status) + " " + reason +
             "\r\nContent-Type: text/html; charset=utf-8\r\nCache-Control: no-store\r\nContent-Length: " +
             std::to_string(body.size()) + "\r\nConnection: close\r\n\r\n" + body;
    asio::async_write(socket_, asio::buffer(reply_), [self = shared_from_this()](error_code, std::size_t) {
      error_code ignored;
      self->socket_.shutdown(tcp::socket::shutdown_send, ignored);
      self->close();
    });
  }

  void close() {
    error_code ignored;
    timer_.cancel();
    socket_.close(ignored);
  }

 private:
  // The target of a GET request line; empty for anything else.
  std::string requestTarget() {
    std::istream in(&buffer_);
    std::string method;
    std::string target;
    std::string version;
    in >> method >> target >> version;
    if (method != "GET" || version.rfind("HTTP/1.", 0) != 0 || target.empty() || target[0] != '/') {
      return {};
    }
    return target;
  }

  tcp::socket socket_;
  asio::steady_timer timer_;
  asio::streambuf buffer_{requestLimit};
  std::string reply_;
};

bool LoopbackRedirect::wanted(std::string_view redirectURI) { return loopbackRedirect(redirectURI).has_value(); }

std::shared_ptr<LoopbackRedirect> LoopbackRedirect::listen(std::string_view redirectURI) {
  auto url = loopbackRedirect(redirectURI);
  if (!url) {
    return nullptr;
  }
  const bool v6 = url->host_type() == boost::urls::host_type::ipv6;
  const tcp::endpoint endpoint(v6 ? asio::ip::address(asio::ip::address_v6::loopback())
                                  : asio::ip::address(asio::ip::address_v4::loopback()),
                               0);
  tcp::acceptor acceptor(platform::EventLoop::main().context());
  error_code error;
  acceptor.open(endpoint.protocol(), error);
  if (!error) {
    acceptor.bind(endpoint, error);
  }
  if (!error) {
    acceptor.listen(asio::socket_base::max_listen_connections, error);
  }
  if (error) {
    util::logAccounts().error("Cannot listen for the sign-in's redirect on " + endpoint.address().to_string() +
                              ": " + error.message());
    return nullptr;
  }
  const auto port = acceptor.local_endpoint().port();
  boost::urls::url withPort(*url);
  withPort.set_port_number(port);
  std::shared_ptr<LoopbackRedirect> listener(new LoopbackRedirect(
      std::move(acceptor), std::string(withPort.buffer()),
      "http://" + std::string(withPort.encoded_host_and_port()), std::string(url->encoded_path())));
  listener->port_ = port;
  listener->accept();
  return listener;
}

LoopbackRedirect::LoopbackRedirect(tcp::acceptor acceptor, std::string redirectURI, std::string origin,
                                   std::string path)
    : acceptor_(std::move(acceptor)),
      redirectURI_(std::move(redirectURI)),
      origin_(std::move(origin)),
      path_(std::move(path)) {}

LoopbackRedirect::~LoopbackRedirect() { stop(); }

void LoopbackRedirect::expect(std::string state, Receiver receiver) {
  state_ = std::move(state);
  receiver_ = std::move(receiver);
}

void LoopbackRedirect::stop() {
  error_code ignored;
  acceptor_.close(ignored);
  for (const auto& connection : waiting_) {
    connection->close();
  }
  waiting_.clear();
}

void LoopbackRedirect::accept() {
  acceptor_.async_accept([weak = weak_from_this()](error_code error, tcp::socket socket) {
    auto self = weak.lock();
    if (!self || error == asio::error::operation_aborted || !self->acceptor_.is_open()) {
      return;
    }
    if (!error) {
      auto connection = std::make_shared<Connection>(std::move(socket));
      self->waiting_.insert(connection);
      connection->read([weak](const std::shared_ptr<Connection>& connection, const std::string& target) {
        if (auto owner = weak.lock()) {
          owner->handle(connection, target);
        } else {
          connection->close();
        }
      });
    }
    self->accept();
  });
}

void LoopbackRedirect::handle(const std::shared_ptr<Connection>& connection, const std::string& target) {
  waiting_.erase(connection);
  auto url = boost::urls::parse_origin_form(target);
  if (target.empty() || !url || url->encoded_path() != path_ || taken_) {
    connection->respond(404, "Not found", "There is nothing here.", "none");
    return;
  }
  const std::string full = origin_ + target;
  if (!state_ || !receiver_ || !redirectStateMatches(full, *state_)) {
    util::logAccounts().warning("A request to the sign-in's loopback redirect was refused: its state is not the one this sign-in sent");
    connection->respond(400, "Sign-in failed",
                        "This page does not belong to the sign-in that the application is waiting for. "
                        "Start the sign-in again from the application.",
                        "refused");
    return;
  }
  const bool taken = receiver_(full, [connection](bool signedIn, const std::string& message) {
    if (signedIn) {
      connection->respond(200, "Signed in", message, "done");
    } else {
      connection->respond(200, "Sign-in failed", message, "failed");
    }
  });
  if (taken) {
    taken_ = true;
    error_code ignored;
    acceptor_.close(ignored);
  }
}

}  // namespace vantor::account::detail
