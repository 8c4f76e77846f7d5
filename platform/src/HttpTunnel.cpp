#include "vantor/platform/HttpTunnel.hpp"

#include <boost/asio/read.hpp>
#include <boost/asio/write.hpp>
#include <boost/beast/http/empty_body.hpp>
#include <boost/beast/http/parser.hpp>
#include <memory>

#include "vantor/platform/ProxyError.hpp"

namespace vantor::platform {

namespace asio = boost::asio;
namespace http = boost::beast::http;
using boost::system::error_code;

namespace {

// Proxies answer CONNECT with a few short header lines.
constexpr std::size_t headerLimit = 16 * 1024;

// The answer is read without reading past its end: each read first peeks
// at what has arrived, then takes only the bytes up to the blank line that
// ends the header. What follows belongs to the tunnelled connection (a
// server that speaks first, or a TLS record already on its way).
template <class Stream>
class Tunnel : public std::enable_shared_from_this<Tunnel<Stream>> {
 public:
  Tunnel(Stream& stream, TunnelCompletion completion)
      : stream_(stream), completion_(std::move(completion)) {}

  void start(const HttpProxy& proxy, const NetworkTarget& target) {
    const bool ipv6 = target.host.find(':') != std::string::npos;
    const auto authority = (ipv6 ? "[" + target.host + "]" : target.host) + ":" + target.port;
    request_ = "CONNECT " + authority + " HTTP/1.1\r\nHost: " + authority + "\r\n";
    if (!proxy.authorization.empty()) {
      request_ += "Proxy-Authorization: " + proxy.authorization + "\r\n";
    }
    request_ += "\r\n";
    asio::async_write(
        stream_.socket(), asio::buffer(request_), [self = this->shared_from_this()](error_code error, std::size_t) {
          if (error) {
            return self->finish(error, "could not send CONNECT to the proxy: " + error.message());
          }
          self->peek();
        });
  }

 private:
  void peek() {
    peeked_.resize(headerLimit + 1 - header_.size());
    stream_.socket().async_receive(
        asio::buffer(peeked_), asio::socket_base::message_peek,
        [self = this->shared_from_this()](error_code error, std::size_t size) { self->onPeeked(error, size); });
  }

  void onPeeked(error_code error, std::size_t size) {
    if (error) {
      return finish(error, "the proxy did not answer CONNECT: " + error.message());
    }
    // The blank line may start in bytes taken before.
    const auto searchFrom = header_.size() < 3 ? 0 : header_.size() - 3;
    const auto before = header_.size();
    header_.append(peeked_.data(), size);
    const auto end = header_.find("\r\n\r\n", searchFrom);
    std::size_t take = size;
    if (end != std::string::npos) {
      header_.resize(end + 4);
      take = header_.size() - before;
    } else if (header_.size() > headerLimit) {
      return finish(ProxyError::responseTooLarge, "the proxy's answer to CONNECT is too large");
    }
    peeked_.resize(take);
    asio::async_read(
        stream_.socket(), asio::buffer(peeked_),
        [self = this->shared_from_this(), complete = end != std::string::npos](error_code error, std::size_t) {
          if (error) {
            return self->finish(error, "the proxy did not answer CONNECT: " + error.message());
          }
          if (complete) {
            return self->onHeader();
          }
          self->peek();
        });
  }

  void onHeader() {
    http::response_parser<http::empty_body> parser;
    // A 2xx answer to CONNECT has no body: the tunnel follows the header.
    parser.skip(true);
    error_code error;
    parser.put(asio::buffer(header_), error);
    if (error || !parser.is_header_done()) {
      return finish(ProxyError::malformedResponse, "the proxy's answer to CONNECT is not HTTP");
    }
    const auto status = parser.get().result_int();
    if (status / 100 != 2) {
      return finish(ProxyError::connectRefused, "proxy refused CONNECT: " + std::to_string(status) + " " +
                                                    std::string(parser.get().reason()));
    }
    finish({}, {});
  }

  void finish(error_code error, std::string description) {
    if (auto completion = std::exchange(completion_, nullptr)) {
      completion(error, std::move(description));
    }
  }

  Stream& stream_;
  TunnelCompletion completion_;
  std::string request_;
  std::string header_;
  std::vector<char> peeked_;
};

}  // namespace

void openHttpTunnel(boost::beast::tcp_stream& stream, const HttpProxy& proxy, const NetworkTarget& target,
                    TunnelCompletion completion) {
  std::make_shared<Tunnel<boost::beast::tcp_stream>>(stream, std::move(completion))->start(proxy, target);
}

void openHttpTunnel(LoopTcpStream& stream, const HttpProxy& proxy, const NetworkTarget& target,
                    TunnelCompletion completion) {
  std::make_shared<Tunnel<LoopTcpStream>>(stream, std::move(completion))->start(proxy, target);
}

}  // namespace vantor::platform
