#include "vantor/testing/UpgradeRefusingProxy.hpp"

#include <algorithm>
#include <array>
#include <atomic>
#include <boost/asio/connect.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/read_until.hpp>
#include <boost/asio/streambuf.hpp>
#include <boost/asio/write.hpp>
#include <cctype>
#include <thread>

#include "RunLoop.hpp"

namespace vantor::testing {

namespace asio = boost::asio;
using tcp = asio::ip::tcp;
using error_code = boost::system::error_code;

namespace {

std::string lowered(std::string text) {
  std::transform(text.begin(), text.end(), text.begin(), [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  return text;
}

// One client connection: its request head is read, judged, and either
// refused or relayed with everything after it.
class Relay : public std::enable_shared_from_this<Relay> {
 public:
  Relay(tcp::socket client, std::uint16_t targetPort, std::atomic<std::size_t>& refused, std::atomic<std::size_t>& passed)
      : client_(std::move(client)), server_(client_.get_executor()), targetPort_(targetPort), refused_(refused), passed_(passed) {}

  void start() { readHead(true); }

 private:
  void readHead(bool first) {
    asio::async_read_until(client_, in_, "\r\n\r\n", [self = shared_from_this(), first](error_code error, std::size_t length) {
      if (error) {
        return self->close();
      }
      std::string head(asio::buffers_begin(self->in_.data()), asio::buffers_begin(self->in_.data()) + static_cast<std::ptrdiff_t>(length));
      self->in_.consume(length);
      self->judge(std::move(head), first);
    });
  }

  void judge(std::string head, bool first) {
    const auto lower = lowered(head);
    if (first && lower.rfind("connect ", 0) == 0) {
      // CONNECT host:port: tunnel, then look at the first request inside.
      const auto end = head.find(' ', 8);
      const auto authority = head.substr(8, end - 8);
      const auto colon = authority.rfind(':');
      const auto port = static_cast<std::uint16_t>(std::stoi(authority.substr(colon + 1)));
      return connectTo(port, [self = shared_from_this()] {
        self->answer("HTTP/1.1 200 Connection established\r\n\r\n", [self] { self->readHead(false); });
      });
    }
    if (lower.find("\r\nupgrade: websocket") != std::string::npos) {
      ++refused_;
      return answer("HTTP/1.1 403 Forbidden\r\nContent-Type: text/plain\r\nContent-Length: 24\r\nConnection: close\r\n\r\n"
                    "WebSocket is not allowed",
                    [self = shared_from_this()] { self->close(); });
    }
    ++passed_;
    auto pass = [self = shared_from_this(), head = std::move(head)] {
      auto copy = std::make_shared<std::string>(head);
      asio::async_write(self->server_, asio::buffer(*copy), [self, copy](error_code error, std::size_t) {
        if (error) {
          return self->close();
        }
        self->pump(self->client_, self->server_, self->up_, self->in_);
        self->pump(self->server_, self->client_, self->down_, self->none_);
      });
    };
    if (server_.is_open()) {
      return pass();
    }
    connectTo(targetPort_, std::move(pass));
  }

  template <class Then>
  void connectTo(std::uint16_t port, Then then) {
    server_.async_connect(tcp::endpoint(asio::ip::make_address_v4("127.0.0.1"), port),
                          [self = shared_from_this(), then = std::move(then)](error_code error) mutable {
                            if (error) {
                              return self->close();
                            }
                            then();
                          });
  }

  template <class Then>
  void answer(std::string text, Then then) {
    auto copy = std::make_shared<std::string>(std::move(text));
    asio::async_write(client_, asio::buffer(*copy), [self = shared_from_this(), copy, then = std::move(then)](error_code error, std::size_t) mutable {
      if (error) {
        return self->close();
      }
      then();
    });
  }

  // Copies `from` to `to` until either ends; bytes already read go first.
  void pump(tcp::socket& from, tcp::socket& to, std::array<char, 16384>& buffer, asio::streambuf& early) {
    if (early.size() > 0) {
      auto data = std::make_shared<std::string>(asio::buffers_begin(early.data()), asio::buffers_end(early.data()));
      early.consume(early.size());
      return asio::async_write(to, asio::buffer(*data), [self = shared_from_this(), data, &from, &to, &buffer, &early](error_code error, std::size_t) {
        if (error) {
          return self->close();
        }
        self->pump(from, to, buffer, early);
      });
    }
    from.async_read_some(asio::buffer(buffer), [self = shared_from_this(), &from, &to, &buffer, &early](error_code error, std::size_t n) {
      if (error) {
        error_code ignored;
        to.shutdown(tcp::socket::shutdown_send, ignored);
        return;
      }
      asio::async_write(to, asio::buffer(buffer.data(), n), [self, &from, &to, &buffer, &early](error_code error, std::size_t) {
        if (error) {
          return self->close();
        }
        self->pump(from, to, buffer, early);
      });
    });
  }

  void close() {
    error_code ignored;
    client_.close(ignored);
    server_.close(ignored);
  }

  tcp::socket client_;
  tcp::socket server_;
  std::uint16_t targetPort_;
  std::atomic<std::size_t>& refused_;
  std::atomic<std::size_t>& passed_;
  asio::streambuf in_;
  asio::streambuf none_;
  std::array<char, 16384> up_{};
  std::array<char, 16384> down_{};
};

}  // namespace

class UpgradeRefusingProxy::Impl {
 public:
  explicit Impl(Options options) : options_(options), acceptor_(io_) {
    port_ = detail::listen(acceptor_, "127.0.0.1", 0);
    accept();
    thread_ = std::thread([this] { detail::runUntilStopped(io_, "UpgradeRefusingProxy"); });
  }
  ~Impl() {
    asio::post(io_, [this] {
      error_code ignored;
      acceptor_.close(ignored);
      io_.stop();
    });
    thread_.join();
  }
  Impl(const Impl&) = delete;
  Impl& operator=(const Impl&) = delete;

  void accept() {
    acceptor_.async_accept([this](error_code error, tcp::socket socket) {
      if (error == asio::error::operation_aborted) {
        return;
      }
      if (!error) {
        std::make_shared<Relay>(std::move(socket), options_.targetPort, refused_, passed_)->start();
      }
      accept();
    });
  }

  Options options_;
  asio::io_context io_;
  tcp::acceptor acceptor_;
  std::uint16_t port_ = 0;
  std::atomic<std::size_t> refused_{0};
  std::atomic<std::size_t> passed_{0};
  std::thread thread_;
};

UpgradeRefusingProxy::UpgradeRefusingProxy(Options options) : impl_(std::make_unique<Impl>(options)) {}
UpgradeRefusingProxy::~UpgradeRefusingProxy() = default;
std::uint16_t UpgradeRefusingProxy::port() const { return impl_->port_; }
std::string UpgradeRefusingProxy::url() const { return "http://127.0.0.1:" + std::to_string(impl_->port_); }
std::size_t UpgradeRefusingProxy::upgradesRefused() const { return impl_->refused_.load(); }
std::size_t UpgradeRefusingProxy::requestsPassed() const { return impl_->passed_.load(); }

}  // namespace vantor::testing
