#pragma once

#include <sys/types.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <thread>

namespace vantor::bench {

/// A single-threaded WebSocket server on 127.0.0.1 that answers every frame
/// [join_ref, ref, topic, event, payload] with
/// [join_ref, ref, topic, "phx_reply", {"status":"ok","response":payload}],
/// joins and heartbeats included. One connection at a time.
class EchoServer {
 public:
  EchoServer();
  ~EchoServer();
  EchoServer(const EchoServer&) = delete;
  EchoServer& operator=(const EchoServer&) = delete;

  [[nodiscard]] std::uint16_t port() const noexcept { return port_; }
  /// The kernel thread id of the serving thread, for pinning it.
  [[nodiscard]] pid_t threadId() const noexcept { return tid_.load(); }
  /// CPU time the serving thread has used so far.
  [[nodiscard]] std::chrono::nanoseconds cpuTime() const;

 private:
  void serve();

  struct State;
  State* state_;
  std::uint16_t port_ = 0;
  std::atomic<pid_t> tid_{0};
  std::thread thread_;
};

/// Pins every thread of the process to core 0, except `serverThread`, which
/// goes to core 1. Threads made later inherit their maker's core.
void pinThreads(pid_t serverThread);

}  // namespace vantor::bench
