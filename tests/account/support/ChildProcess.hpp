#pragma once

#include <sys/types.h>

#include <chrono>
#include <optional>
#include <string>
#include <vector>

namespace vantor::account::testing {

// A program started without a shell, with pipes to its standard input and
// from its standard output; its standard error is the caller's. Destroying
// the object closes the input, asks the program to stop (SIGTERM) and
// reaps it, so no test leaves a process behind.
//
// Not thread-safe: one thread uses an object.
class ChildProcess {
 public:
  // Starts `argv[0]` (looked up on PATH) with `argv`; `environment` entries
  // ("NAME=value") are added to this process's environment. Throws
  // std::runtime_error when it cannot be started.
  explicit ChildProcess(const std::vector<std::string>& argv,
                        const std::vector<std::string>& environment = {});
  ChildProcess(const ChildProcess&) = delete;
  ChildProcess& operator=(const ChildProcess&) = delete;
  ~ChildProcess();

  // The next line of output, without its line break; none when the output
  // ends or `timeout` passes first.
  std::optional<std::string> readLine(std::chrono::milliseconds timeout);

  // The exit status once the program has ended (128 + signal number when a
  // signal ended it); none if it is still running after `timeout`.
  std::optional<int> wait(std::chrono::milliseconds timeout);

  // SIGTERM, then SIGKILL if it has not ended within two seconds; reaps it.
  void stop();

  [[nodiscard]] pid_t pid() const noexcept { return pid_; }

 private:
  pid_t pid_ = -1;
  int input_ = -1;
  int output_ = -1;
  std::string buffered_;
  std::optional<int> status_;
};

// Runs `argv` to its end and returns its exit status and whole output; none
// when it is still running after `timeout` (it is then stopped).
struct Completed {
  int status = -1;
  std::string output;
};
std::optional<Completed> runToCompletion(const std::vector<std::string>& argv,
                                         std::chrono::milliseconds timeout,
                                         const std::vector<std::string>& environment = {});

}  // namespace vantor::account::testing
