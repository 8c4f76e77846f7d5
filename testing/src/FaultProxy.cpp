#include "vantor/testing/FaultProxy.hpp"

#include <boost/asio/executor_work_guard.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/asio/write.hpp>

#include <algorithm>
#include <array>
#include <atomic>
#include <deque>
#include <functional>
#include <map>
#include <thread>
#include <utility>

#include "Recorder.hpp"
#include "RunLoop.hpp"

namespace vantor::testing {
namespace {

namespace asio = boost::asio;
using tcp = asio::ip::tcp;
using error_code = boost::system::error_code;
using Clock = std::chrono::steady_clock;

constexpr std::size_t kReadSize = 16 * 1024;
// Bytes read but not yet forwarded, per direction, above which reading
// pauses (while frozen or trickling), so held data stays bounded.
constexpr std::size_t kHeldLimit = 1 << 20;

// What the test has asked for; read by the connections on the proxy thread.
struct Faults {
  bool frozen = false;
  bool cutArmed = false;
  std::size_t trickleBytes = 0;
  std::chrono::milliseconds trickleInterval{0};
  std::chrono::milliseconds delay{0};

  [[nodiscard]] bool trickling() const {
    return trickleBytes > 0 && trickleInterval > std::chrono::milliseconds(0);
  }
};

class Link;

class ProxyCore {
 public:
  explicit ProxyCore(FaultProxy::Options options);
  ~ProxyCore() { stop(); }
  ProxyCore(const ProxyCore&) = delete;
  ProxyCore& operator=(const ProxyCore&) = delete;

  void stop();
  void execute(const std::function<void()>& work);
  void forEachLink(const std::function<void(Link&)>& action);
  // A connection ended; called once per connection, on the proxy thread.
  void ended(std::uint64_t key);

  // Declared first so that everything that refers to it goes before it.
  asio::io_context io_;
  FaultProxy::Options options_;
  tcp::endpoint target_;
  std::uint16_t port_ = 0;
  Faults faults_;

  struct Records {
    std::size_t accepted = 0;
    std::size_t open = 0;
    std::uint64_t bytesTowardsServer = 0;
    std::uint64_t bytesTowardsClient = 0;
  };
  Recorder<Records> records_;

 private:
  void accept();

  tcp::acceptor acceptor_;
  std::uint64_t nextKey_ = 0;
  std::map<std::uint64_t, std::shared_ptr<Link>> links_;
  std::atomic<bool> stopped_{false};
  asio::executor_work_guard<asio::io_context::executor_type> work_;
  std::thread thread_;
};

// One proxied connection: the client's socket, the socket to the target and
// a forwarding direction each way. Lives on the proxy thread; its handlers
// keep it alive.
class Link : public std::enable_shared_from_this<Link> {
 public:
  Link(ProxyCore& core, std::uint64_t key, tcp::socket client)
      : core_(core),
        key_(key),
        client_(std::move(client)),
        server_(core.io_),
        up_(client_, server_, true, core.io_),
        down_(server_, client_, false, core.io_) {}

  // Forwards nothing more, ever: a connection the other side has forgotten.
  void strand() { stranded_ = true; }

  void start() {
    server_.async_connect(core_.target_, [self = shared_from_this()](error_code ec) {
      if (self->ended_) {
        return;
      }
      if (ec) {
        return self->abort();
      }
      error_code ignored;
      self->server_.set_option(tcp::no_delay(true), ignored);
      self->connected_ = true;
      self->read(self->down_);
      self->pump(self->up_);
    });
    read(up_);
  }

  void pumpAll() {
    pump(up_);
    pump(down_);
  }

  // Both peers get an RST: lingering off, then close.
  void abort() {
    if (ended_) {
      return;
    }
    end(true);
  }

 private:
  struct Chunk {
    std::string data;
    std::size_t offset = 0;
    Clock::time_point due;
    bool endOfStream = false;
    std::size_t cutAt = 0;  // nonzero: forward this many bytes, then end
  };

  struct Direction {
    Direction(tcp::socket& from, tcp::socket& to, bool towardsServer, asio::io_context& io)
        : from(from), to(to), towardsServer(towardsServer), timer(io) {}
    tcp::socket& from;
    tcp::socket& to;
    bool towardsServer;
    asio::steady_timer timer;
    std::array<char, kReadSize> buffer{};
    std::deque<Chunk> queue;
    std::size_t held = 0;
    Clock::time_point nextSlot;  // earliest next write while trickling
    bool reading = false;
    bool readEnded = false;
    bool writing = false;
    bool waiting = false;
    bool ended = false;  // end-of-stream passed on
  };

  void read(Direction& d) {
    if (ended_ || d.reading || d.readEnded || d.held >= kHeldLimit) {
      return;
    }
    d.reading = true;
    d.from.async_read_some(
        asio::buffer(d.buffer), [self = shared_from_this(), &d](error_code ec, std::size_t n) {
          d.reading = false;
          if (self->ended_) {
            return;
          }
          if (ec == asio::error::eof) {
            d.readEnded = true;
            d.queue.push_back({{}, 0, self->dueTime(), true, 0});
          } else if (ec) {
            return self->abort();  // a reset or a vanished peer: pass it on
          } else {
            self->core_.records_.update([&](auto& r) {
              (d.towardsServer ? r.bytesTowardsServer : r.bytesTowardsClient) += n;
            });
            Chunk chunk{std::string(d.buffer.data(), n), 0, self->dueTime(), false, 0};
            auto& faults = self->core_.faults_;
            if (!d.towardsServer && faults.cutArmed && n >= 2) {
              faults.cutArmed = false;
              chunk.cutAt = n / 2;
            }
            d.held += n;
            d.queue.push_back(std::move(chunk));
            self->read(d);
          }
          self->pump(d);
        });
  }

  Clock::time_point dueTime() const { return Clock::now() + core_.faults_.delay; }

  void pump(Direction& d) {
    const auto& faults = core_.faults_;
    if (ended_ || stranded_ || d.writing || d.waiting || faults.frozen || !connected_ || d.queue.empty()) {
      return;
    }
    auto& chunk = d.queue.front();
    auto now = Clock::now();
    auto due = chunk.due;
    if (faults.trickling()) {
      due = std::max(due, d.nextSlot);
    }
    if (due > now) {
      d.waiting = true;
      d.timer.expires_at(due);
      d.timer.async_wait([self = shared_from_this(), &d](error_code) {
        d.waiting = false;
        self->pump(d);
      });
      return;
    }
    if (chunk.endOfStream) {
      d.queue.pop_front();
      error_code ignored;
      d.to.shutdown(tcp::socket::shutdown_send, ignored);
      d.ended = true;
      if (up_.ended && down_.ended) {
        end();
      }
      return;
    }
    auto limit = chunk.cutAt != 0 ? chunk.cutAt : chunk.data.size();
    auto size = limit - chunk.offset;
    if (faults.trickling()) {
      size = std::min(size, faults.trickleBytes);
    }
    d.writing = true;
    asio::async_write(
        d.to, asio::buffer(chunk.data.data() + chunk.offset, size),
        [self = shared_from_this(), &d](error_code ec, std::size_t written) {
          d.writing = false;
          if (self->ended_) {
            return;
          }
          if (ec) {
            return self->abort();
          }
          const auto& faults = self->core_.faults_;
          if (faults.trickling()) {
            d.nextSlot = Clock::now() + faults.trickleInterval;
          }
          auto& chunk = d.queue.front();
          chunk.offset += written;
          if (chunk.cutAt != 0 && chunk.offset >= chunk.cutAt) {
            return self->end();  // a frame cut in the middle
          }
          if (chunk.offset == chunk.data.size()) {
            d.held -= chunk.data.size();
            d.queue.pop_front();
            self->read(d);  // resumes a paused read
          }
          self->pump(d);
        });
  }

  // Closes both sockets: with a FIN, or with an RST when `abrupt` (no
  // shutdown first, which would send a FIN before it).
  void end(bool abrupt = false) {
    if (ended_) {
      return;
    }
    ended_ = true;
    for (auto* socket : {&client_, &server_}) {
      error_code ignored;
      if (abrupt) {
        socket->set_option(asio::socket_base::linger(true, 0), ignored);
      } else {
        socket->shutdown(tcp::socket::shutdown_both, ignored);
      }
      socket->close(ignored);
    }
    up_.timer.cancel();
    down_.timer.cancel();
    core_.ended(key_);
  }

  ProxyCore& core_;
  std::uint64_t key_;
  tcp::socket client_;
  tcp::socket server_;
  Direction up_;    // client to server
  Direction down_;  // server to client
  bool connected_ = false;
  bool ended_ = false;
  bool stranded_ = false;
};

ProxyCore::ProxyCore(FaultProxy::Options options)
    : options_(options),
      target_(asio::ip::make_address_v4("127.0.0.1"), options.targetPort),
      acceptor_(io_),
      work_(asio::make_work_guard(io_)) {
  port_ = detail::listen(acceptor_, "127.0.0.1", 0);
  accept();
  thread_ = std::thread([this] { detail::runUntilStopped(io_, "FaultProxy"); });
}

void ProxyCore::stop() {
  if (stopped_.exchange(true)) {
    return;
  }
  asio::post(io_, [this] {
    error_code ignored;
    acceptor_.close(ignored);
    forEachLink([](Link& link) { link.abort(); });
    io_.stop();
  });
  thread_.join();
  links_.clear();
  records_.update([](Records& r) { r.open = 0; });
}

void ProxyCore::accept() {
  acceptor_.async_accept([this](error_code ec, tcp::socket socket) {
    if (ec == asio::error::operation_aborted) {
      return;
    }
    if (!ec) {
      error_code ignored;
      socket.set_option(tcp::no_delay(true), ignored);
      auto key = nextKey_++;
      auto link = std::make_shared<Link>(*this, key, std::move(socket));
      links_.emplace(key, link);
      records_.update([](Records& r) {
        ++r.accepted;
        ++r.open;
      });
      link->start();
    }
    accept();
  });
}

void ProxyCore::forEachLink(const std::function<void(Link&)>& action) {
  // Copy first: an action may end a connection and so change the map.
  std::vector<std::shared_ptr<Link>> links;
  for (auto& [key, link] : links_) {
    links.push_back(link);
  }
  for (auto& link : links) {
    action(*link);
  }
}

void ProxyCore::ended(std::uint64_t key) {
  if (links_.erase(key) != 0) {
    records_.update([](Records& r) { --r.open; });
  }
}

void ProxyCore::execute(const std::function<void()>& work) {
  if (!stopped_) {
    detail::runOn(io_, work);
  }
}

}  // namespace

class FaultProxy::Impl : public ProxyCore {
 public:
  using ProxyCore::ProxyCore;
};

FaultProxy::FaultProxy(Options options) : impl_(std::make_unique<Impl>(std::move(options))) {}

FaultProxy::~FaultProxy() = default;

void FaultProxy::stop() { impl_->stop(); }

std::uint16_t FaultProxy::port() const { return impl_->port_; }

std::string FaultProxy::url(std::string_view pathAndQuery) const {
  return detail::url(impl_->options_.tls, "127.0.0.1", port(), pathAndQuery);
}

void FaultProxy::freeze() {
  impl_->execute([&] { impl_->faults_.frozen = true; });
}

void FaultProxy::unfreeze() {
  impl_->execute([&] {
    impl_->faults_.frozen = false;
    impl_->forEachLink([](Link& link) { link.pumpAll(); });
  });
}

void FaultProxy::strandOpenConnections() {
  impl_->execute([&] { impl_->forEachLink([](Link& link) { link.strand(); }); });
}

void FaultProxy::reset() {
  impl_->execute([&] { impl_->forEachLink([](Link& link) { link.abort(); }); });
}

void FaultProxy::cutNextServerChunk() {
  impl_->execute([&] { impl_->faults_.cutArmed = true; });
}

void FaultProxy::trickle(std::size_t bytes, std::chrono::milliseconds interval) {
  impl_->execute([&] {
    impl_->faults_.trickleBytes = bytes;
    impl_->faults_.trickleInterval = interval;
    impl_->forEachLink([](Link& link) { link.pumpAll(); });
  });
}

void FaultProxy::delay(std::chrono::milliseconds latency) {
  impl_->execute([&] { impl_->faults_.delay = latency; });
}

std::size_t FaultProxy::connectionCount() const {
  return impl_->records_.read([](const auto& r) { return r.accepted; });
}

FaultProxy::ByteCounts FaultProxy::bytesForwarded() const {
  return impl_->records_.read(
      [](const auto& r) { return ByteCounts{r.bytesTowardsServer, r.bytesTowardsClient}; });
}

std::size_t FaultProxy::openConnections() const {
  return impl_->records_.read([](const auto& r) { return r.open; });
}

bool FaultProxy::waitForConnections(std::size_t count, std::chrono::milliseconds timeout) const {
  return impl_->records_.waitFor(timeout, [&](const auto& r) { return r.accepted >= count; });
}

}  // namespace vantor::testing
