#include "vantor/platform/Fatal.hpp"

#include <cstdio>
#include <cstdlib>

namespace vantor::platform {

void fatalError(std::string_view message) noexcept {
  std::fwrite(message.data(), 1, message.size(), stderr);
  std::fputc('\n', stderr);
  std::fflush(stderr);
  std::abort();
}

}  // namespace vantor::platform
