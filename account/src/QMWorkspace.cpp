#include "vantor/account/QMWorkspace.hpp"

#include <spawn.h>
#include <sys/wait.h>

#include <cerrno>
#include <cstring>
#include <mutex>
#include <thread>

#include "vantor/util/LogAccounts.hpp"

extern char** environ;

namespace vantor::account {

namespace {

struct OpenerSlot {
  std::mutex mutex;
  QMWorkspace::Opener opener;
};

OpenerSlot& slot() {
  static OpenerSlot* const shared = new OpenerSlot();
  return *shared;
}

#if defined(__APPLE__)
constexpr const char* helperProgram = "open";
#else
constexpr const char* helperProgram = "xdg-open";
#endif

}  // namespace

bool QMWorkspace::open(const std::string& url) {
  if (url.empty()) {
    return false;
  }
  Opener opener;
  {
    auto& shared = slot();
    std::lock_guard lock(shared.mutex);
    opener = shared.opener;
  }
  return opener ? opener(url) : openInDefaultBrowser(url);
}

void QMWorkspace::setOpener(Opener opener) {
  auto& shared = slot();
  std::lock_guard lock(shared.mutex);
  shared.opener = std::move(opener);
}

bool QMWorkspace::openInDefaultBrowser(const std::string& url) {
  // No shell: the URL is one argument whatever characters it holds.
  std::string program = helperProgram;
  std::string argument = url;
  char* argv[] = {program.data(), argument.data(), nullptr};
  pid_t pid = 0;
  int failed = posix_spawnp(&pid, program.c_str(), nullptr, nullptr, argv, environ);
  if (failed != 0) {
    util::logAccounts().error(std::string("Could not start ") + helperProgram + ": " +
                              std::strerror(failed));
    return false;
  }
  // The helper hands the URL to the browser and exits; reap it so it does not
  // linger as a zombie, without making the caller wait.
  std::thread([pid] {
    int status = 0;
    while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
    if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) {
      util::logAccounts().warning(std::string(helperProgram) + " did not open the page");
    }
  }).detach();
  return true;
}

}  // namespace vantor::account
