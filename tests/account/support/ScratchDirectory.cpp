#include "ScratchDirectory.hpp"

#include <stdlib.h>

#include <stdexcept>
#include <string>

namespace vantor::account::testing {

ScratchDirectory::ScratchDirectory(std::string_view prefix) {
  std::string pattern = (std::filesystem::temp_directory_path() / (std::string(prefix) + "-XXXXXX")).string();
  if (::mkdtemp(pattern.data()) == nullptr) {
    throw std::runtime_error("could not make a scratch folder");
  }
  path_ = pattern;
}

ScratchDirectory::~ScratchDirectory() {
  std::error_code ignored;
  std::filesystem::remove_all(path_, ignored);
}

}  // namespace vantor::account::testing
