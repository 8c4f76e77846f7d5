#include "Text.hpp"

#include <cstdint>
#include <cstdio>
#include <cstring>

namespace vantor::realtime::detail {

bool isValidUtf8(std::string_view bytes) noexcept {
  std::size_t i = 0;
  const std::size_t n = bytes.size();
  while (i < n) {
    // ASCII, the usual case, eight bytes at a time.
    while (i + 8 <= n) {
      std::uint64_t word;
      std::memcpy(&word, bytes.data() + i, sizeof word);
      if ((word & 0x8080808080808080ULL) != 0) {
        break;
      }
      i += 8;
    }
    if (i >= n) {
      break;
    }
    const auto c = static_cast<unsigned char>(bytes[i]);
    if (c < 0x80) {
      ++i;
      continue;
    }
    std::size_t length = 0;
    char32_t codePoint = 0;
    if ((c & 0xE0) == 0xC0) {
      length = 2;
      codePoint = c & 0x1F;
    } else if ((c & 0xF0) == 0xE0) {
      length = 3;
      codePoint = c & 0x0F;
    } else if ((c & 0xF8) == 0xF0) {
      length = 4;
      codePoint = c & 0x07;
    } else {
      return false;
    }
    if (i + length > n) {
      return false;
    }
    for (std::size_t k = 1; k < length; ++k) {
      const auto next = static_cast<unsigned char>(bytes[i + k]);
      if ((next & 0xC0) != 0x80) {
        return false;
      }
      codePoint = (codePoint << 6) | (next & 0x3F);
    }
    // Overlong forms, surrogates and values past U+10FFFF are not UTF-8.
    static constexpr char32_t smallest[] = {0, 0, 0x80, 0x800, 0x10000};
    if (codePoint < smallest[length] || codePoint > 0x10FFFF ||
        (codePoint >= 0xD800 && codePoint <= 0xDFFF)) {
      return false;
    }
    i += length;
  }
  return true;
}

void writeLineToStandardOutput(std::string_view line) {
  std::fwrite(line.data(), 1, line.size(), stdout);
  std::fputc('\n', stdout);
  std::fflush(stdout);
}

}  // namespace vantor::realtime::detail
