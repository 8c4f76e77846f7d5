// The only test source that includes Beast.
#include "BlockingClient.hpp"

#include <boost/asio/connect.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/ssl.hpp>
#include <boost/beast/core.hpp>
#include <boost/beast/http.hpp>
#include <boost/beast/ssl.hpp>
#include <boost/beast/websocket.hpp>
#include <boost/beast/websocket/ssl.hpp>
#include <boost/url/parse.hpp>

namespace vantor::testing {
namespace {
namespace asio = boost::asio;
namespace beast = boost::beast;
namespace http = beast::http;
namespace ssl = asio::ssl;
namespace websocket = beast::websocket;
using tcp = asio::ip::tcp;
using PlainStream = websocket::stream<beast::tcp_stream>;
using TlsStream = websocket::stream<ssl::stream<beast::tcp_stream>>;
}  // namespace

struct BlockingClient::Impl {
  asio::io_context io;
  std::chrono::milliseconds timeout;
  std::optional<ssl::context> tls;
  std::optional<PlainStream> plain;
  std::optional<TlsStream> secure;

  // Calls `f` with whichever stream is in use.
  template <class F>
  decltype(auto) visit(F&& f) {
    if (secure) {
      return f(*secure);
    }
    return f(*plain);
  }

  void closeSocket() {
    visit([](auto& ws) {
      beast::get_lowest_layer(ws).close();
      return 0;
    });
  }

  // Runs one asynchronous operation to completion or until the timeout.
  template <class Start>
  beast::error_code run(Start&& start) {
    std::optional<beast::error_code> result;
    start([&](beast::error_code ec, auto&&...) { result = ec; });
    io.restart();
    io.run_for(timeout);
    if (!result) {
      closeSocket();
      io.restart();
      io.run();
      return beast::error::timeout;
    }
    return *result;
  }
};

BlockingClient::BlockingClient(const std::string& url) : BlockingClient(url, Options{}) {}

BlockingClient::BlockingClient(const std::string& url, Options options)
    : impl_(std::make_unique<Impl>()) {
  impl_->timeout = options.timeout;
  auto parsed = boost::urls::parse_uri(url);
  if (!parsed) {
    throw HandshakeError("unparsable URL " + url, 0);
  }
  std::string host(parsed->host());
  std::string port(parsed->port());
  std::string target(parsed->encoded_path().empty() ? "/" : parsed->encoded_path());
  if (parsed->has_query()) {
    target += "?" + std::string(parsed->encoded_query());
  }
  bool secure = parsed->scheme() == "wss";

  tcp::resolver resolver(impl_->io);
  beast::error_code ec;
  auto endpoints = resolver.resolve(host, port, ec);
  if (ec) {
    throw HandshakeError("resolve: " + ec.message(), 0);
  }
  if (secure) {
    impl_->tls.emplace(ssl::context::tls_client);
    impl_->tls->set_default_verify_paths();
    if (options.trustedCaPem) {
      impl_->tls->add_certificate_authority(asio::buffer(*options.trustedCaPem));
    }
    impl_->tls->set_verify_mode(ssl::verify_peer);
    impl_->secure.emplace(impl_->io, *impl_->tls);
  } else {
    impl_->plain.emplace(impl_->io);
  }

  impl_->visit([&](auto& ws) {
    auto fail = [&](const char* step, beast::error_code error, int status = 0) {
      throw HandshakeError(std::string(step) + ": " + error.message(), status);
    };
    if (auto error = impl_->run(
            [&](auto handler) { beast::get_lowest_layer(ws).async_connect(endpoints, handler); })) {
      fail("connect", error);
    }
    if constexpr (std::is_same_v<std::decay_t<decltype(ws)>, TlsStream>) {
      SSL_set_tlsext_host_name(ws.next_layer().native_handle(), host.c_str());
      ws.next_layer().set_verify_callback(ssl::host_name_verification(host));
      if (auto error = impl_->run([&](auto handler) {
            ws.next_layer().async_handshake(ssl::stream_base::client, handler);
          })) {
        fail("TLS handshake", error);
      }
    }
    websocket::response_type response;
    if (auto error = impl_->run([&](auto handler) {
          ws.async_handshake(response, host + ":" + port, target, handler);
        })) {
      fail("WebSocket handshake", error, static_cast<int>(response.result_int()));
    }
    return 0;
  });
}

BlockingClient::~BlockingClient() { impl_->closeSocket(); }

void BlockingClient::sendText(std::string_view text) {
  impl_->visit([&](auto& ws) {
    ws.text(true);
    return impl_->run([&](auto handler) { ws.async_write(asio::buffer(text), handler); });
  });
}

void BlockingClient::sendBinary(std::string_view bytes) {
  impl_->visit([&](auto& ws) {
    ws.binary(true);
    return impl_->run([&](auto handler) { ws.async_write(asio::buffer(bytes), handler); });
  });
}

BlockingClient::Frame BlockingClient::read() {
  return impl_->visit([&](auto& ws) {
    beast::flat_buffer buffer;
    auto error = impl_->run([&](auto handler) { ws.async_read(buffer, handler); });
    if (error == websocket::error::closed) {
      return Frame{Frame::Kind::close,
                   std::string(ws.reason().reason.data(), ws.reason().reason.size()),
                   static_cast<std::uint16_t>(ws.reason().code)};
    }
    if (error) {
      return Frame{Frame::Kind::error, error.message()};
    }
    return Frame{ws.got_text() ? Frame::Kind::text : Frame::Kind::binary,
                 beast::buffers_to_string(buffer.data())};
  });
}

void BlockingClient::close(std::uint16_t code) {
  impl_->visit([&](auto& ws) {
    return impl_->run(
        [&](auto handler) { ws.async_close(websocket::close_reason(code), handler); });
  });
}

void sendRawAndClose(std::uint16_t port, std::string_view bytes) {
  asio::io_context io;
  tcp::socket socket(io);
  socket.connect({asio::ip::make_address_v4("127.0.0.1"), port});
  if (!bytes.empty()) {
    asio::write(socket, asio::buffer(bytes));
  }
  beast::error_code ignored;
  socket.shutdown(tcp::socket::shutdown_both, ignored);
  socket.close(ignored);
}

}  // namespace vantor::testing
