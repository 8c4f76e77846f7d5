#include "LoopbackHttpServer.hpp"

#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/beast/core.hpp>
#include <boost/beast/http.hpp>
#include <thread>

namespace vantor::account::testing {

namespace asio = boost::asio;
namespace beast = boost::beast;
namespace http = beast::http;
using tcp = asio::ip::tcp;
using boost::system::error_code;

struct LoopbackHttpServer::Impl {
  explicit Impl(Handler handler) : handler(std::move(handler)) {}

  Handler handler;
  asio::io_context context;
  tcp::acceptor acceptor{context};
  std::thread thread;
  unsigned short port = 0;
  mutable std::mutex mutex;
  mutable std::condition_variable arrived;
  std::vector<Request> requests;

  void accept();
};

namespace {

class Session : public std::enable_shared_from_this<Session> {
 public:
  Session(tcp::socket socket, LoopbackHttpServer::Impl& server)
      : stream_(std::move(socket)), timer_(stream_.get_executor()), server_(server) {}

  void start() {
    http::async_read(stream_, buffer_, request_, [self = shared_from_this()](error_code error, std::size_t) {
      if (!error) {
        self->answer();
      }
    });
  }

 private:
  void answer() {
    LoopbackHttpServer::Request seen{std::string(request_.method_string()), std::string(request_.target()),
                                     std::string(request_[http::field::authorization]), request_.body()};
    {
      std::lock_guard lock(server_.mutex);
      server_.requests.push_back(seen);
    }
    server_.arrived.notify_all();
    auto reply = server_.handler(seen);
    response_.result(static_cast<unsigned>(reply.status));
    response_.version(11);
    response_.set(http::field::content_type, "application/json");
    response_.set(http::field::connection, "close");
    response_.body() = std::move(reply.body);
    response_.prepare_payload();
    timer_.expires_after(reply.delay);
    timer_.async_wait([self = shared_from_this()](error_code) {
      http::async_write(self->stream_, self->response_, [self](error_code, std::size_t) {
        error_code ignored;
        self->stream_.socket().shutdown(tcp::socket::shutdown_both, ignored);
      });
    });
  }

  beast::tcp_stream stream_;
  asio::steady_timer timer_;
  LoopbackHttpServer::Impl& server_;
  beast::flat_buffer buffer_;
  http::request<http::string_body> request_;
  http::response<http::string_body> response_;
};

}  // namespace

void LoopbackHttpServer::Impl::accept() {
  acceptor.async_accept([this](error_code error, tcp::socket socket) {
    if (error) {
      return;
    }
    std::make_shared<Session>(std::move(socket), *this)->start();
    accept();
  });
}

LoopbackHttpServer::LoopbackHttpServer(Handler handler) : impl_(std::make_unique<Impl>(std::move(handler))) {
  tcp::endpoint endpoint(asio::ip::make_address("127.0.0.1"), 0);
  impl_->acceptor.open(endpoint.protocol());
  impl_->acceptor.bind(endpoint);
  impl_->acceptor.listen();
  impl_->port = impl_->acceptor.local_endpoint().port();
  impl_->accept();
  impl_->thread = std::thread([this] { impl_->context.run(); });
}

LoopbackHttpServer::~LoopbackHttpServer() {
  impl_->context.stop();
  impl_->thread.join();
}

std::string LoopbackHttpServer::url() const {
  return "http://127.0.0.1:" + std::to_string(impl_->port);
}

std::vector<LoopbackHttpServer::Request> LoopbackHttpServer::requests() const {
  std::lock_guard lock(impl_->mutex);
  return impl_->requests;
}

bool LoopbackHttpServer::waitForRequest(const std::string& path, std::chrono::milliseconds timeout) const {
  std::unique_lock lock(impl_->mutex);
  return impl_->arrived.wait_for(lock, timeout, [this, &path] {
    for (const auto& request : impl_->requests) {
      if (request.target.substr(0, request.target.find('?')) == path) {
        return true;
      }
    }
    return false;
  });
}

}  // namespace vantor::account::testing
