#pragma once

#include <filesystem>
#include <string_view>

namespace vantor::account::testing {

// A new empty folder "<prefix>-XXXXXX" in the system's temporary folder,
// removed with all it holds when the object goes.
class ScratchDirectory {
 public:
  explicit ScratchDirectory(std::string_view prefix);
  ScratchDirectory(const ScratchDirectory&) = delete;
  ScratchDirectory& operator=(const ScratchDirectory&) = delete;
  ~ScratchDirectory();

  [[nodiscard]] const std::filesystem::path& path() const noexcept { return path_; }

 private:
  std::filesystem::path path_;
};

}  // namespace vantor::account::testing
