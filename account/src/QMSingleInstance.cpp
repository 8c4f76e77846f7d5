#include "vantor/account/QMSingleInstance.hpp"

#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <boost/asio/local/stream_protocol.hpp>
#include <boost/asio/read_until.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/asio/streambuf.hpp>
#include <boost/asio/write.hpp>
#include <cctype>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <set>
#include <stdexcept>

#include "BundleFileName.hpp"
#include "vantor/platform/EventLoop.hpp"
#include "vantor/util/LogAccounts.hpp"

namespace vantor::account {

namespace asio = boost::asio;
namespace fs = std::filesystem;
using boost::system::error_code;
using Local = asio::local::stream_protocol;

namespace {

// A URL longer than this is not a sign-in's redirect.
constexpr std::size_t urlLimit = 64 * 1024;
constexpr auto readTime = std::chrono::seconds(5);

// The user's private folder for the socket: $XDG_RUNTIME_DIR, or one made
// in the temporary folder, refused unless it is the user's alone.
fs::path privateFolder() {
  if (const char* runtime = std::getenv("XDG_RUNTIME_DIR"); runtime != nullptr && fs::path(runtime).is_absolute()) {
    return runtime;
  }
  const auto folder = fs::temp_directory_path() / ("vantor-" + std::to_string(::geteuid()));
  ::mkdir(folder.c_str(), 0700);
  struct stat info {};
  if (::lstat(folder.c_str(), &info) != 0 || !S_ISDIR(info.st_mode) || info.st_uid != ::geteuid() ||
      (info.st_mode & 077) != 0) {
    throw std::runtime_error(folder.string() + " is not a folder of this user's alone");
  }
  return folder;
}

bool peerIsThisUser(int descriptor) {
  struct ucred peer {};
  socklen_t size = sizeof peer;
  return ::getsockopt(descriptor, SOL_SOCKET, SO_PEERCRED, &peer, &size) == 0 && peer.uid == ::geteuid();
}

// True when something accepts connections at `path`.
bool someoneListens(const fs::path& path) {
  const int descriptor = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (descriptor < 0) {
    return false;
  }
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::strncpy(address.sun_path, path.c_str(), sizeof address.sun_path - 1);
  const bool connected = ::connect(descriptor, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0;
  ::close(descriptor);
  return connected;
}

}  // namespace

// The running copy's side, on the main event loop.
class QMSingleInstance::Listener : public std::enable_shared_from_this<Listener> {
 public:
  Listener(fs::path path, Receiver receiver)
      : path_(std::move(path)), receiver_(std::move(receiver)), acceptor_(platform::EventLoop::main().context()) {}

  void open() {
    const Local::endpoint endpoint(path_.string());
    error_code error;
    acceptor_.open(Local(), error);
    if (!error) {
      acceptor_.bind(endpoint, error);
      if (error == asio::error::address_in_use) {
        if (someoneListens(path_)) {
          throw std::runtime_error("another copy of the application is running");
        }
        // A socket left behind by a copy that ended without removing it.
        ::unlink(path_.c_str());
        error.clear();
        acceptor_.bind(endpoint, error);
      }
    }
    if (!error) {
      ::chmod(path_.c_str(), 0600);
      acceptor_.listen(asio::socket_base::max_listen_connections, error);
    }
    if (error) {
      throw std::runtime_error("cannot listen on " + path_.string() + ": " + error.message());
    }
    struct stat info {};
    if (::stat(path_.c_str(), &info) == 0) {
      inode_ = info.st_ino;
    }
    accept();
  }

  void close() {
    error_code ignored;
    acceptor_.close(ignored);
    for (const auto& socket : connections_) {
      socket->close(ignored);
    }
    connections_.clear();
    struct stat info {};
    if (inode_ != 0 && ::stat(path_.c_str(), &info) == 0 && info.st_ino == inode_) {
      ::unlink(path_.c_str());
    }
  }

 private:
  struct Connection {
    explicit Connection(Local::socket s) : socket(std::move(s)), timer(socket.get_executor()) {}
    Local::socket socket;
    asio::steady_timer timer;
    asio::streambuf buffer{urlLimit + 1};
    std::string answer = "ok\n";
  };

  void accept() {
    acceptor_.async_accept([weak = weak_from_this()](error_code error, Local::socket socket) {
      auto self = weak.lock();
      if (!self || !self->acceptor_.is_open()) {
        return;
      }
      if (!error && peerIsThisUser(socket.native_handle())) {
        self->read(std::make_shared<Connection>(std::move(socket)));
      }
      self->accept();
    });
  }

  void read(const std::shared_ptr<Connection>& connection) {
    connections_.insert(&connection->socket);
    connection->timer.expires_after(readTime);
    connection->timer.async_wait([connection](error_code error) {
      if (!error) {
        error_code ignored;
        connection->socket.close(ignored);
      }
    });
    asio::async_read_until(connection->socket, connection->buffer, '\n',
                           [weak = weak_from_this(), connection](error_code error, std::size_t length) {
                             auto self = weak.lock();
                             connection->timer.cancel();
                             if (self) {
                               self->connections_.erase(&connection->socket);
                             }
                             if (!self || error) {
                               return;
                             }
                             std::string url(asio::buffers_begin(connection->buffer.data()),
                                             asio::buffers_begin(connection->buffer.data()) +
                                                 static_cast<std::ptrdiff_t>(length - 1));
                             asio::async_write(connection->socket, asio::buffer(connection->answer),
                                               [connection](error_code, std::size_t) {});
                             self->deliver(url);
                           });
  }

  void deliver(const std::string& url) {
    try {
      receiver_(url);
    } catch (const std::exception& e) {
      util::logAccounts().error(std::string("A URL handed over by another copy of the application failed: ") +
                                e.what());
    } catch (...) {
      util::logAccounts().error("A URL handed over by another copy of the application failed");
    }
  }

  const fs::path path_;
  const Receiver receiver_;
  Local::acceptor acceptor_;
  std::set<Local::socket*> connections_;
  ino_t inode_ = 0;
};

fs::path QMSingleInstance::socketPath() {
  const auto bundle = detail::bundleIdentifierForFileNames("for its hand-off socket");
  auto path = privateFolder() / (bundle + ".url-handoff");
  if (path.string().size() >= sizeof(sockaddr_un::sun_path)) {
    throw std::runtime_error(path.string() + " is too long for a socket");
  }
  return path;
}

bool QMSingleInstance::handOff(const std::string& url, std::chrono::milliseconds timeout) {
  if (url.empty() || url.size() > urlLimit || url.find_first_of(std::string_view("\n\0", 2)) != std::string::npos) {
    return false;
  }
  fs::path path;
  try {
    path = socketPath();
  } catch (const std::exception& e) {
    util::logAccounts().error(std::string("Cannot hand the URL over: ") + e.what());
    return false;
  }
  const int descriptor = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (descriptor < 0) {
    return false;
  }
  timeval limit{};
  limit.tv_sec = static_cast<time_t>(timeout.count() / 1000);
  limit.tv_usec = static_cast<suseconds_t>((timeout.count() % 1000) * 1000);
  ::setsockopt(descriptor, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
  ::setsockopt(descriptor, SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof limit);
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::strncpy(address.sun_path, path.c_str(), sizeof address.sun_path - 1);
  bool taken = false;
  if (::connect(descriptor, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0 &&
      peerIsThisUser(descriptor)) {
    const std::string line = url + "\n";
    std::size_t sent = 0;
    while (sent < line.size()) {
      const auto n = ::send(descriptor, line.data() + sent, line.size() - sent, MSG_NOSIGNAL);
      if (n <= 0) {
        break;
      }
      sent += static_cast<std::size_t>(n);
    }
    char answer[3] = {};
    std::size_t got = 0;
    while (sent == line.size() && got < sizeof answer) {
      const auto n = ::recv(descriptor, answer + got, sizeof answer - got, 0);
      if (n <= 0) {
        break;
      }
      got += static_cast<std::size_t>(n);
    }
    taken = got == sizeof answer && std::memcmp(answer, "ok\n", 3) == 0;
  }
  ::close(descriptor);
  return taken;
}

QMSingleInstance::QMSingleInstance(Receiver receiver) {
  auto listener = std::make_shared<Listener>(socketPath(), std::move(receiver));
  platform::EventLoop::main().sync([&] { listener->open(); });
  listener_ = std::move(listener);
}

QMSingleInstance::~QMSingleInstance() {
  platform::EventLoop::main().sync([listener = listener_] { listener->close(); });
}

}  // namespace vantor::account
