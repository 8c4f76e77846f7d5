#pragma once

#include <chrono>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace vantor::account::testing {

// A plain HTTP/1.1 server on 127.0.0.1 (free port) that answers every
// request through a handler and records the requests, for tests that play
// the sign-in service themselves. It runs its own thread; the handler runs
// there. One request per connection; a response may be held back for a
// while (without holding up other connections). Every member may be called
// from any thread.
class LoopbackHttpServer {
 public:
  struct Request {
    std::string method;
    std::string target;
    std::string authorization;
    std::string body;
  };
  struct Response {
    int status = 200;
    std::string body;
    std::chrono::milliseconds delay{0};
  };
  using Handler = std::function<Response(const Request& request)>;

  explicit LoopbackHttpServer(Handler handler);
  LoopbackHttpServer(const LoopbackHttpServer&) = delete;
  LoopbackHttpServer& operator=(const LoopbackHttpServer&) = delete;
  ~LoopbackHttpServer();

  // "http://127.0.0.1:<port>".
  [[nodiscard]] std::string url() const;
  [[nodiscard]] std::vector<Request> requests() const;
  // Waits until a request for `path` (the target without its query) arrived.
  bool waitForRequest(const std::string& path, std::chrono::milliseconds timeout) const;

  // The server's state, known to its source only (connections reach it).
  struct Impl;

 private:
  std::unique_ptr<Impl> impl_;
};

}  // namespace vantor::account::testing
