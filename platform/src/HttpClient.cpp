#include "vantor/platform/HttpClient.hpp"

#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/asio/ssl.hpp>
#include <boost/beast/core.hpp>
#include <boost/beast/http.hpp>
#include <boost/beast/ssl.hpp>
#include <boost/url/parse.hpp>
#include <memory>
#include <optional>

#include "vantor/platform/HttpTunnel.hpp"
#include "vantor/platform/NetworkTarget.hpp"
#include "vantor/platform/TlsClient.hpp"

namespace vantor::platform {

namespace asio = boost::asio;
namespace beast = boost::beast;
namespace http = beast::http;
namespace ssl = asio::ssl;
using tcp = asio::ip::tcp;
using boost::system::error_code;

class HttpConnection {
 public:
  // Scheme, host, port and proxy: a connection serves only the same again.
  std::string place;
  std::shared_ptr<ssl::context> tls;  // outlives the stream that uses it
  std::optional<beast::ssl_stream<beast::tcp_stream>> secure;
  std::optional<beast::tcp_stream> plain;
};

std::shared_ptr<HttpConnection> makeHttpConnection() { return std::make_shared<HttpConnection>(); }

namespace {

constexpr std::uint64_t bodyLimit = 1024 * 1024;

// Streams move but do not move-assign.
template <class Stream>
void handOver(std::optional<Stream>& from, std::optional<Stream>& to) {
  to.reset();
  if (from) {
    to.emplace(std::move(*from));
    from.reset();
  }
}

// Where the request goes; plain http only to loopback hosts.
std::optional<NetworkTarget> targetOf(const std::string& text, bool allowPlainHttp, std::string& failure) {
  auto url = parseEndpointUrl(text);
  if (!url) {
    failure = "not an absolute URL with a host";
    return std::nullopt;
  }
  auto target = NetworkTarget::of(*url, "http", "https");
  if (!target) {
    failure = "not an http or https URL with a host";
    return std::nullopt;
  }
  if (!target->secure && !allowPlainHttp && !isLoopbackUrl(text)) {
    failure = "plain http is only allowed for loopback hosts";
    return std::nullopt;
  }
  return target;
}

// One request: resolve, connect, TLS handshake when secure, write, read.
// One timer bounds the whole request, the host name look-up included: a
// look-up cannot be interrupted, so the deadline finishes the request without
// waiting for it, and its late answer finds nothing left to complete.
class Exchange : public std::enable_shared_from_this<Exchange> {
 public:
  Exchange(asio::io_context& context, HttpClientOptions options, HttpCompletion completion)
      : context_(context),
        options_(std::move(options)),
        completion_(std::move(completion)),
        resolver_(context),
        deadlineTimer_(context) {}

  void start(const HttpRequest& request) {
    std::string failure;
    auto target = targetOf(request.url, options_.allowPlainHttp, failure);
    if (!target) {
      return finish(failure);
    }
    target_ = std::move(*target);
    parser_->body_limit(bodyLimit);
    deadline_ = std::chrono::steady_clock::now() + options_.timeout;
    deadlineTimer_.expires_at(deadline_);
    deadlineTimer_.async_wait([self = shared_from_this()](error_code error) {
      if (!error) {
        self->resolver_.cancel();
        self->finish("no answer within " + std::to_string(self->options_.timeout.count()) + " ms");
      }
    });
    request_.method_string(request.method);
    request_.target(target_.target);
    request_.version(11);
    request_.set(http::field::host, target_.hostHeader);
    request_.set(http::field::user_agent, "VantorClient");
    if (!options_.keepAlive) {
      request_.set(http::field::connection, "close");
    }
    for (const auto& [name, value] : request.headers) {
      request_.set(name, value);
    }
    if (!request.body.empty() || request.method == "POST") {
      request_.body() = request.body;
      request_.prepare_payload();
    }
    // A kept connection goes on through the proxy it was opened through:
    // the proxy is looked up for new connections only.
    place_ = std::string(target_.secure ? "https://" : "http://") + target_.host + ":" + target_.port;
    if (auto& kept = options_.keepAlive; kept && kept->place == place_ && (kept->secure || kept->plain)) {
      reused_ = true;
      tls_ = std::move(kept->tls);
      handOver(kept->secure, secure_);
      handOver(kept->plain, plain_);
      return write();
    }
    openConnection();
  }

 private:
  // The desktop may be asked for the proxy, off the loop.
  void openConnection() {
    options_.proxy.resolve(target_, context_, [self = shared_from_this()](auto proxy) {
      if (self->completion_ == nullptr) {
        return;  // the deadline came first
      }
      if (!proxy) {
        return self->finish("no usable proxy: " + proxy.error().message());
      }
      self->proxy_ = std::move(*proxy);
      self->connect();
    });
  }

  // A new connection: resolve, connect, tunnel, TLS handshake, then write.
  void connect() {
    secure_.reset();
    plain_.reset();
    if (target_.secure) {
      error_code error;
      tls_ = options_.tls ? options_.tls
                          : makeTlsClientContext(options_.useSystemTrustStore,
                                                 options_.additionalCertificateAuthorities, error);
      if (!tls_) {
        return finish("TLS set-up failed: " + error.message());
      }
      secure_.emplace(context_, *tls_);
    } else {
      plain_.emplace(context_);
    }
    resolver_.async_resolve(
        proxy_ ? proxy_->host : target_.host, proxy_ ? proxy_->port : target_.port,
        [self = shared_from_this()](error_code error, tcp::resolver::results_type results) {
          self->onResolved(error, std::move(results));
        });
  }

  // A kept connection that failed before any answer came, other than by
  // the deadline, was closed by the server while idle: the request goes
  // again on a new one.
  bool retryOnNewConnection(error_code error) {
    if (error == beast::error::timeout || !std::exchange(reused_, false) || completion_ == nullptr) {
      return false;
    }
    error_code ignored;
    tcpStream().socket().close(ignored);
    parser_.emplace();
    parser_->body_limit(bodyLimit);
    buffer_.clear();
    tunnelOpen_ = false;
    openConnection();
    return true;
  }

  beast::tcp_stream& tcpStream() { return secure_ ? secure_->next_layer() : *plain_; }

  void armDeadline() { tcpStream().expires_at(deadline_); }

  void onResolved(error_code error, tcp::resolver::results_type results) {
    if (error) {
      return finish("could not resolve the host: " + error.message());
    }
    armDeadline();
    tcpStream().async_connect(results, [self = shared_from_this()](error_code error, const tcp::endpoint&) {
      self->onConnected(error);
    });
  }

  void onConnected(error_code error) {
    if (error) {
      return finish((proxy_ ? "could not connect to the proxy: " : "could not connect: ") + error.message());
    }
    if (proxy_ && !tunnelOpen_) {
      // The deadline timer closes the socket, which ends the tunnel request too.
      return openHttpTunnel(
          tcpStream(), *proxy_, target_,
          [self = shared_from_this()](error_code error, const std::string& description) {
            if (error) {
              return self->finish(description);
            }
            self->tunnelOpen_ = true;
            self->onConnected({});
          });
    }
    if (!secure_) {
      return write();
    }
    if (prepareTlsHandshake(*secure_, target_)) {
      return finish("could not set the TLS server name");
    }
    armDeadline();
    secure_->async_handshake(ssl::stream_base::client, [self = shared_from_this()](error_code error) {
      if (error) {
        return self->finish("TLS handshake failed: " + error.message());
      }
      self->write();
    });
  }

  void write() {
    armDeadline();
    auto written = [self = shared_from_this()](error_code error, std::size_t) {
      if (error && self->retryOnNewConnection(error)) {
        return;
      }
      if (error) {
        return self->finish("could not send the request: " + error.message());
      }
      self->read();
    };
    if (secure_) {
      http::async_write(*secure_, request_, std::move(written));
    } else {
      http::async_write(*plain_, request_, std::move(written));
    }
  }

  void read() {
    armDeadline();
    auto received = [self = shared_from_this()](error_code error, std::size_t) {
      if (error && !self->parser_->got_some() && self->retryOnNewConnection(error)) {
        return;
      }
      if (error) {
        return self->finish("could not read the response: " + error.message());
      }
      HttpOutcome outcome;
      outcome.status = static_cast<int>(self->parser_->get().result_int());
      outcome.body = std::move(self->parser_->get().body());
      self->finish(std::move(outcome));
    };
    if (secure_) {
      http::async_read(*secure_, buffer_, *parser_, std::move(received));
    } else {
      http::async_read(*plain_, buffer_, *parser_, std::move(received));
    }
  }

  void finish(std::string failure) {
    HttpOutcome outcome;
    outcome.failure = std::move(failure);
    finish(std::move(outcome));
  }

  void finish(HttpOutcome outcome) {
    error_code ignored;
    deadlineTimer_.cancel();
    if (secure_ || plain_) {
      if (outcome.succeeded() && options_.keepAlive && parser_->keep_alive() && buffer_.size() == 0) {
        // Kept for the next request; whatever the holder had is closed.
        auto& kept = *options_.keepAlive;
        kept.place = place_;
        handOver(secure_, kept.secure);
        handOver(plain_, kept.plain);
        kept.tls = tls_;
      } else {
        // Closing the TCP socket without a TLS close_notify is fine for a
        // finished response.
        tcpStream().socket().close(ignored);
      }
    }
    if (auto completion = std::exchange(completion_, nullptr)) {
      completion(std::move(outcome));
    }
  }

  asio::io_context& context_;
  const HttpClientOptions options_;
  HttpCompletion completion_;
  tcp::resolver resolver_;
  asio::steady_timer deadlineTimer_;
  NetworkTarget target_;
  std::optional<HttpProxy> proxy_;
  bool tunnelOpen_ = false;
  std::chrono::steady_clock::time_point deadline_;
  std::string place_;
  bool reused_ = false;  // the connection came from `options_.keepAlive`
  std::shared_ptr<ssl::context> tls_;
  std::optional<beast::ssl_stream<beast::tcp_stream>> secure_;
  std::optional<beast::tcp_stream> plain_;
  http::request<http::string_body> request_;
  std::optional<http::response_parser<http::string_body>> parser_{std::in_place};
  beast::flat_buffer buffer_;
};

}  // namespace

void sendHttpRequest(asio::io_context& context, HttpRequest request,
                     const HttpClientOptions& options, HttpCompletion completion) {
  auto exchange = std::make_shared<Exchange>(context, options, std::move(completion));
  // Started on the context, so that the completion never runs on the
  // caller's stack, even when the request fails at once.
  asio::post(context, [exchange, request = std::move(request)] { exchange->start(request); });
}

HttpOutcome sendHttpRequestAndWait(HttpRequest request, const HttpClientOptions& options) {
  asio::io_context context(1);
  HttpOutcome result;
  sendHttpRequest(context, std::move(request), options,
                  [&result](HttpOutcome outcome) { result = std::move(outcome); });
  context.run();
  return result;
}

}  // namespace vantor::platform
