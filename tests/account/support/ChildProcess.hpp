#pragma once

#include <sys/types.h>

#include <chrono>
#include <optional>
#include <string>
#include <vector>

namespace vantor::account::testing {

// A program started without a shell (argv[0] looked up on PATH), with pipes
// to its standard input and from its standard output. Destroying the object
// stops it, so no test leaves a process behind. One thread uses an object.
class ChildProcess {
 public:
  // Throws std::runtime_error when it cannot be started.
  explicit ChildProcess(const std::vector<std::string>& argv);
  ChildProcess(const ChildProcess&) = delete;
  ChildProcess& operator=(const ChildProcess&) = delete;
  ~ChildProcess();

  // The next whole line of output, without its line break; none when the
  // output ends or `timeout` passes first (a partial line is then lost).
  std::optional<std::string> readLine(std::chrono::milliseconds timeout);

  // Writes `text` to its input; false when it cannot (it has ended).
  bool write(const std::string& text);

  // The exit status once the program has ended (128 + signal number when a
  // signal ended it); none if it is still running after `timeout`.
  std::optional<int> wait(std::chrono::milliseconds timeout);

  // Closes its input; unless it then ends within a second, sends SIGTERM,
  // then SIGKILL if it has not ended within two more; reaps it.
  void stop();

 private:
  pid_t pid_ = -1;
  int input_ = -1;
  int output_ = -1;
  std::optional<int> status_;
};

// Runs `argv` to its end and returns its exit status and whole output; none
// when it is still running after `timeout` (it is then stopped).
struct Completed {
  int status = -1;
  std::string output;
};
std::optional<Completed> runToCompletion(const std::vector<std::string>& argv,
                                         std::chrono::milliseconds timeout);

}  // namespace vantor::account::testing
