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
#include <boost/json/parse.hpp>
#include <boost/json/serialize.hpp>
#include <cstdlib>
#include <string>
#include <time.h>

namespace vantor::bench {

namespace asio = boost::asio;
namespace beast = boost::beast;
namespace json = boost::json;
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
        auto frame = json::parse(
            std::string_view(static_cast<const char*>(buffer.data().data()), buffer.size()));
        buffer.consume(buffer.size());
        auto& in = frame.as_array();
        json::array out{in.at(0), in.at(1), in.at(2), "phx_reply",
                        json::object{{"status", "ok"}, {"response", in.at(4)}}};
        reply = json::serialize(out);
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
