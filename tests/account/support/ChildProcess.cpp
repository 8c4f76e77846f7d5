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
#include <utility>

extern char** environ;

namespace vantor::account::testing {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

ChildProcess::ChildProcess(const std::vector<std::string>& argv) {
  int toChild[2];
  int fromChild[2];
  if (::pipe2(toChild, O_CLOEXEC) != 0 || ::pipe2(fromChild, O_CLOEXEC) != 0) {
    throw std::runtime_error("pipe failed");
  }
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, toChild[0], STDIN_FILENO);
  posix_spawn_file_actions_adddup2(&actions, fromChild[1], STDOUT_FILENO);
  std::vector<char*> args;
  for (const auto& argument : argv) {
    args.push_back(const_cast<char*>(argument.c_str()));
  }
  args.push_back(nullptr);
  int failed = posix_spawnp(&pid_, args[0], &actions, nullptr, args.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  ::close(toChild[0]);
  ::close(fromChild[1]);
  input_ = toChild[1];
  output_ = fromChild[0];
  if (failed != 0) {
    ::close(input_);
    ::close(output_);
    throw std::runtime_error("could not start " + argv.front() + ": " + std::strerror(failed));
  }
}

ChildProcess::~ChildProcess() {
  stop();
  if (output_ >= 0) {
    ::close(output_);
  }
}

bool ChildProcess::write(const std::string& text) {
  std::size_t sent = 0;
  while (input_ >= 0 && sent < text.size()) {
    const auto n = ::write(input_, text.data() + sent, text.size() - sent);
    if (n <= 0) {
      return false;
    }
    sent += static_cast<std::size_t>(n);
  }
  return sent == text.size();
}

std::optional<std::string> ChildProcess::readLine(milliseconds timeout) {
  auto deadline = Clock::now() + timeout;
  std::string line;
  char c = 0;
  while (output_ >= 0) {
    auto left = std::chrono::duration_cast<milliseconds>(deadline - Clock::now()).count();
    pollfd ready{output_, POLLIN, 0};
    if (left <= 0 || ::poll(&ready, 1, static_cast<int>(left)) <= 0) {
      return std::nullopt;
    }
    auto n = ::read(output_, &c, 1);
    if (n == 1 && c == '\n') {
      return line;
    }
    if (n == 1) {
      line += c;
    } else if (n == 0 || errno != EINTR) {
      ::close(std::exchange(output_, -1));
    }
  }
  return std::nullopt;
}

std::optional<int> ChildProcess::wait(milliseconds timeout) {
  auto deadline = Clock::now() + timeout;
  while (!status_) {
    int status = 0;
    auto reaped = ::waitpid(pid_, &status, WNOHANG);
    if (reaped == pid_) {
      status_ = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    } else if (reaped < 0 && errno != EINTR) {
      status_ = -1;
    } else if (Clock::now() >= deadline) {
      return std::nullopt;
    } else {
      std::this_thread::sleep_for(milliseconds(20));
    }
  }
  return status_;
}

void ChildProcess::stop() {
  if (input_ >= 0) {
    ::close(std::exchange(input_, -1));
  }
  // A program that ends with its input gets a moment to end cleanly, and
  // so to stop what it started (dbus-run-session its bus).
  if (!status_ && !wait(std::chrono::seconds(1))) {
    ::kill(pid_, SIGTERM);
    if (!wait(std::chrono::seconds(2))) {
      ::kill(pid_, SIGKILL);
      wait(std::chrono::seconds(10));
    }
  }
}

std::optional<Completed> runToCompletion(const std::vector<std::string>& argv, milliseconds timeout) {
  ChildProcess child(argv);
  auto deadline = Clock::now() + timeout;
  auto left = [deadline] { return std::chrono::duration_cast<milliseconds>(deadline - Clock::now()); };
  Completed completed;
  while (auto line = child.readLine(left())) {
    completed.output += *line + "\n";
  }
  auto status = child.wait(std::max(left(), milliseconds(100)));
  if (!status) {
    return std::nullopt;
  }
  completed.status = *status;
  return completed;
}

}  // namespace vantor::account::testing
