#include "EchoServer.hpp"

#include <dirent.h>
#include <pthread.h>
#include <sched.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <boost/asio/ip/tcp.hpp>
#include <boost/beast/core/flat_buffer.hpp>
#include <boost/beast/websocket.hpp>
#include <cstdlib>
#include <stdexcept>
#include <string>
#include <time.h>

namespace vantor::bench {

namespace asio = boost::asio;
namespace beast = boost::beast;
using tcp = asio::ip::tcp;

struct EchoServer::State {
  asio::io_context context;
  tcp::acceptor acceptor{context, tcp::endpoint(asio::ip::make_address("127.0.0.1"), 0)};
  std::atomic<bool> stopping{false};
  std::atomic<clockid_t> clock{CLOCK_THREAD_CPUTIME_ID};
};

EchoServer::EchoServer() : state_(new State) {
  port_ = state_->acceptor.local_endpoint().port();
  thread_ = std::thread([this] { serve(); });
  while (tid_.load() == 0) {
    std::this_thread::yield();
  }
}

EchoServer::~EchoServer() {
  state_->stopping = true;
  // Wakes a blocked accept with a connection that closes at once.
  try {
    asio::io_context context;
    tcp::socket poke(context);
    poke.connect(tcp::endpoint(asio::ip::make_address("127.0.0.1"), port_));
  } catch (...) {
  }
  thread_.join();
  delete state_;
}

std::chrono::nanoseconds EchoServer::cpuTime() const {
  timespec now{};
  clock_gettime(state_->clock.load(), &now);
  return std::chrono::seconds(now.tv_sec) + std::chrono::nanoseconds(now.tv_nsec);
}

namespace {

// Writes the reply to `frame` into `reply` by splicing the frame's text,
// without parsing it into values: the server must stay cheaper than any
// client it serves. A frame that is not a five-element array ends the
// connection.
void replyTo(std::string_view frame, std::string& reply) {
  // The offsets of the top-level commas, outside strings.
  std::size_t commas[4];
  int found = 0;
  int depth = 0;
  bool inString = false;
  for (std::size_t i = 0; i < frame.size() && found < 4; ++i) {
    const char c = frame[i];
    if (inString) {
      if (c == '\\') {
        ++i;
      } else if (c == '"') {
        inString = false;
      }
    } else if (c == '"') {
      inString = true;
    } else if (c == '[' || c == '{') {
      ++depth;
    } else if (c == ']' || c == '}') {
      --depth;
    } else if (c == ',' && depth == 1) {
      commas[found++] = i;
    }
  }
  if (found < 4 || frame.empty() || frame.back() != ']') {
    throw std::runtime_error("not a frame");
  }
  const auto payload = frame.substr(commas[3] + 1, frame.size() - commas[3] - 2);
  reply.assign(frame.substr(0, commas[2] + 1));
  reply.append(R"("phx_reply",{"status":"ok","response":)");
  reply.append(payload);
  reply.append("}]");
}

}  // namespace

void EchoServer::serve() {
  clockid_t clock{};
  pthread_getcpuclockid(pthread_self(), &clock);
  state_->clock = clock;
  tid_ = gettid();
  while (!state_->stopping) {
    try {
      tcp::socket socket(state_->context);
      state_->acceptor.accept(socket);
      if (state_->stopping) {
        return;
      }
      socket.set_option(tcp::no_delay(true));
      // A client that vanished without closing must not keep the next one
      // waiting forever.
      const timeval limit{5, 0};
      setsockopt(socket.native_handle(), SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
      beast::websocket::stream<tcp::socket> ws(std::move(socket));
      ws.accept();
      ws.text(true);
      beast::flat_buffer buffer;
      std::string reply;
      for (;;) {
        ws.read(buffer);
        replyTo(std::string_view(static_cast<const char*>(buffer.data().data()), buffer.size()), reply);
        buffer.consume(buffer.size());
        ws.write(asio::buffer(reply));
      }
    } catch (...) {
      // The client went away; wait for the next one.
    }
  }
}

void pinThreads(pid_t serverThread) {
  DIR* tasks = opendir("/proc/self/task");
  if (tasks == nullptr) {
    return;
  }
  while (const dirent* entry = readdir(tasks)) {
    const pid_t tid = static_cast<pid_t>(std::atoi(entry->d_name));
    if (tid <= 0) {
      continue;
    }
    cpu_set_t set;
    CPU_ZERO(&set);
    CPU_SET(tid == serverThread ? 1 : 0, &set);
    sched_setaffinity(tid, sizeof set, &set);
  }
  closedir(tasks);
}

}  // namespace vantor::bench
