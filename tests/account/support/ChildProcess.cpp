#include "ChildProcess.hpp"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <stdexcept>
#include <thread>

extern char** environ;

namespace vantor::account::testing {

namespace {

using Clock = std::chrono::steady_clock;

int exitStatus(int status) {
  if (WIFEXITED(status)) {
    return WEXITSTATUS(status);
  }
  return WIFSIGNALED(status) ? 128 + WTERMSIG(status) : -1;
}

}  // namespace

ChildProcess::ChildProcess(const std::vector<std::string>& argv,
                           const std::vector<std::string>& environment) {
  int toChild[2];
  int fromChild[2];
  if (::pipe2(toChild, O_CLOEXEC) != 0) {
    throw std::runtime_error("pipe failed");
  }
  if (::pipe2(fromChild, O_CLOEXEC) != 0) {
    ::close(toChild[0]);
    ::close(toChild[1]);
    throw std::runtime_error("pipe failed");
  }
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, toChild[0], STDIN_FILENO);
  posix_spawn_file_actions_adddup2(&actions, fromChild[1], STDOUT_FILENO);

  std::vector<std::string> arguments = argv;
  std::vector<char*> args;
  for (auto& argument : arguments) {
    args.push_back(argument.data());
  }
  args.push_back(nullptr);
  std::vector<std::string> variables = environment;
  std::vector<char*> env;
  for (char** entry = environ; *entry != nullptr; ++entry) {
    env.push_back(*entry);
  }
  for (auto& variable : variables) {
    env.push_back(variable.data());
  }
  env.push_back(nullptr);

  int failed = posix_spawnp(&pid_, args[0], &actions, nullptr, args.data(), env.data());
  posix_spawn_file_actions_destroy(&actions);
  ::close(toChild[0]);
  ::close(fromChild[1]);
  if (failed != 0) {
    ::close(toChild[1]);
    ::close(fromChild[0]);
    throw std::runtime_error("could not start " + argv.front() + ": " + std::strerror(failed));
  }
  input_ = toChild[1];
  output_ = fromChild[0];
}

ChildProcess::~ChildProcess() {
  stop();
  if (output_ >= 0) {
    ::close(output_);
  }
}

std::optional<std::string> ChildProcess::readLine(std::chrono::milliseconds timeout) {
  auto deadline = Clock::now() + timeout;
  for (;;) {
    if (auto end = buffered_.find('\n'); end != std::string::npos) {
      auto line = buffered_.substr(0, end);
      buffered_.erase(0, end + 1);
      return line;
    }
    auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now());
    if (output_ < 0 || left.count() <= 0) {
      return std::nullopt;
    }
    pollfd ready{output_, POLLIN, 0};
    if (::poll(&ready, 1, static_cast<int>(left.count())) <= 0) {
      continue;
    }
    char chunk[4096];
    auto n = ::read(output_, chunk, sizeof chunk);
    if (n < 0 && errno == EINTR) {
      continue;
    }
    if (n <= 0) {
      ::close(output_);
      output_ = -1;
      continue;
    }
    buffered_.append(chunk, static_cast<std::size_t>(n));
  }
}

std::optional<int> ChildProcess::wait(std::chrono::milliseconds timeout) {
  auto deadline = Clock::now() + timeout;
  while (!status_) {
    int status = 0;
    auto reaped = ::waitpid(pid_, &status, WNOHANG);
    if (reaped == pid_) {
      status_ = exitStatus(status);
    } else if (reaped < 0 && errno != EINTR) {
      status_ = -1;
    } else if (Clock::now() >= deadline) {
      return std::nullopt;
    } else {
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
  }
  return status_;
}

void ChildProcess::stop() {
  if (input_ >= 0) {
    ::close(input_);
    input_ = -1;
  }
  if (status_ || pid_ <= 0) {
    return;
  }
  ::kill(pid_, SIGTERM);
  if (!wait(std::chrono::seconds(2))) {
    ::kill(pid_, SIGKILL);
    wait(std::chrono::seconds(10));
  }
}

std::optional<Completed> runToCompletion(const std::vector<std::string>& argv,
                                         std::chrono::milliseconds timeout,
                                         const std::vector<std::string>& environment) {
  ChildProcess child(argv, environment);
  auto deadline = Clock::now() + timeout;
  Completed completed;
  while (auto line = child.readLine(std::chrono::duration_cast<std::chrono::milliseconds>(
             deadline - Clock::now()))) {
    completed.output += *line + "\n";
  }
  auto status = child.wait(std::chrono::duration_cast<std::chrono::milliseconds>(
      std::max(deadline - Clock::now(), Clock::duration(std::chrono::milliseconds(100)))));
  if (!status) {
    return std::nullopt;
  }
  completed.status = *status;
  return completed;
}

}  // namespace vantor::account::testing
