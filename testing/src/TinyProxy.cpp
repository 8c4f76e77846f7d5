#include "vantor/testing/TinyProxy.hpp"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <signal.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <thread>

extern char** environ;

namespace vantor::testing {

namespace {

using Clock = std::chrono::steady_clock;
using namespace std::chrono_literals;

sockaddr_in loopback(std::uint16_t port) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(port);
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  return address;
}

// A port that was free a moment ago. tinyproxy needs the number in its
// configuration; a clash with another program is caught by the start-up wait.
std::uint16_t freePort() {
  const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  auto address = loopback(0);
  socklen_t length = sizeof address;
  if (fd < 0 || ::bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 ||
      ::getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length) != 0) {
    if (fd >= 0) {
      ::close(fd);
    }
    throw std::runtime_error("no free port");
  }
  ::close(fd);
  return ntohs(address.sin_port);
}

bool listens(std::uint16_t port) {
  const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  auto address = loopback(port);
  const bool connected = fd >= 0 && ::connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0;
  if (fd >= 0) {
    ::close(fd);
  }
  return connected;
}

}  // namespace

TinyProxy::TinyProxy() : TinyProxy(Options{}) {}

TinyProxy::TinyProxy(Options options) : options_(std::move(options)) {
  std::string pattern = (std::filesystem::temp_directory_path() / "vantor-tinyproxy-XXXXXX").string();
  if (::mkdtemp(pattern.data()) == nullptr) {
    throw std::runtime_error(std::string("mkdtemp failed: ") + std::strerror(errno));
  }
  directory_ = pattern;
  const auto config = directory_ / "tinyproxy.conf";
  for (int attempt = 0; attempt < 3 && pid_ < 0; ++attempt) {
    port_ = freePort();
    {
      std::ofstream file(config);
      file << "Port " << port_ << "\nListen 127.0.0.1\nAllow 127.0.0.1\nTimeout 30\n"
           << "MaxClients 100\nLogLevel Connect\nLogFile \"" << (directory_ / "tinyproxy.log").string()
           << "\"\nPidFile \"" << (directory_ / "tinyproxy.pid").string() << "\"\n";
      for (auto port : options_.connectPorts) {
        file << "ConnectPort " << port << "\n";
      }
      if (options_.basicAuth) {
        const auto colon = options_.basicAuth->find(':');
        file << "BasicAuth " << options_.basicAuth->substr(0, colon) << " "
             << options_.basicAuth->substr(colon + 1) << "\n";
      }
    }
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    // Its start-up notices go to the log file; keep the test output clean.
    posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, "/dev/null", O_WRONLY, 0);
    posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, "/dev/null", O_WRONLY, 0);
    // Sockets of the test process must not live on in the proxy.
    posix_spawn_file_actions_addclosefrom_np(&actions, STDERR_FILENO + 1);
    std::string program = "tinyproxy";
    std::string foreground = "-d";
    std::string configFlag = "-c";
    std::string configPath = config.string();
    char* argv[] = {program.data(), foreground.data(), configFlag.data(), configPath.data(), nullptr};
    pid_t pid = -1;
    const int failed = posix_spawnp(&pid, "tinyproxy", &actions, nullptr, argv, environ);
    posix_spawn_file_actions_destroy(&actions);
    if (failed != 0) {
      std::filesystem::remove_all(directory_);
      throw std::runtime_error(std::string("could not start tinyproxy (scripts/setup.sh installs it): ") +
                               std::strerror(failed));
    }
    const auto deadline = Clock::now() + 10s;
    int status = 0;
    while (Clock::now() < deadline && ::waitpid(pid, &status, WNOHANG) == 0) {
      if (listens(port_)) {
        pid_ = pid;
        break;
      }
      std::this_thread::sleep_for(10ms);
    }
    if (pid_ < 0 && ::waitpid(pid, &status, WNOHANG) == 0) {
      ::kill(pid, SIGKILL);
      ::waitpid(pid, &status, 0);
    }
  }
  if (pid_ < 0) {
    auto text = log();
    std::filesystem::remove_all(directory_);
    throw std::runtime_error("tinyproxy did not start listening: " + text);
  }
}

TinyProxy::~TinyProxy() {
  ::kill(pid_, SIGTERM);
  int status = 0;
  const auto deadline = Clock::now() + 2s;
  while (::waitpid(pid_, &status, WNOHANG) == 0) {
    if (Clock::now() > deadline) {
      ::kill(pid_, SIGKILL);
      ::waitpid(pid_, &status, 0);
      break;
    }
    std::this_thread::sleep_for(5ms);
  }
  std::error_code ignored;
  std::filesystem::remove_all(directory_, ignored);
}

std::string TinyProxy::url(bool withCredentials) const {
  std::string credentials;
  if (withCredentials && options_.basicAuth) {
    credentials = *options_.basicAuth + "@";
  }
  return "http://" + credentials + "127.0.0.1:" + std::to_string(port_);
}

std::string TinyProxy::log() const {
  std::ifstream file(directory_ / "tinyproxy.log");
  std::stringstream text;
  text << file.rdbuf();
  return text.str();
}

std::size_t TinyProxy::countInLog(const std::string& text) const {
  std::istringstream lines(log());
  std::size_t count = 0;
  for (std::string line; std::getline(lines, line);) {
    if (line.find(text) != std::string::npos) {
      ++count;
    }
  }
  return count;
}

std::size_t TinyProxy::tunnelsOpened() const { return countInLog("Established connection to host"); }

std::size_t TinyProxy::connectRequests() const { return countInLog("): CONNECT "); }

}  // namespace vantor::testing
