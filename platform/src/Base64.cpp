#include "vantor/platform/Base64.hpp"

#include <cstdint>

namespace vantor::platform {

namespace {

constexpr std::string_view alphabetOf(Base64Alphabet alphabet) {
  return alphabet == Base64Alphabet::url ? "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789-_"
                                         : "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
}

}  // namespace

std::string base64Encode(std::string_view bytes, Base64Alphabet alphabet, bool pad) {
  const auto characters = alphabetOf(alphabet);
  std::string out;
  out.reserve((bytes.size() + 2) / 3 * 4);
  std::uint32_t bits = 0;
  int count = 0;
  for (const unsigned char byte : bytes) {
    bits = (bits << 8) | byte;
    count += 8;
    while (count >= 6) {
      count -= 6;
      out += characters[(bits >> count) & 0x3f];
    }
  }
  if (count > 0) {
    out += characters[(bits << (6 - count)) & 0x3f];
  }
  if (pad) {
    out.append((4 - out.size() % 4) % 4, '=');
  }
  return out;
}

std::optional<std::string> base64Decode(std::string_view text, Base64Alphabet alphabet) {
  while (!text.empty() && text.back() == '=') {
    text.remove_suffix(1);
  }
  if (text.size() % 4 == 1) {
    return std::nullopt;  // a lone character carries no whole byte
  }
  const auto characters = alphabetOf(alphabet);
  std::string out;
  std::uint32_t bits = 0;
  int count = 0;
  for (const char c : text) {
    const auto value = characters.find(c);
    if (value == std::string_view::npos) {
      return std::nullopt;
    }
    bits = (bits << 6) | static_cast<std::uint32_t>(value);
    count += 6;
    if (count >= 8) {
      count -= 8;
      out += static_cast<char>((bits >> count) & 0xff);
    }
  }
  return out;
}

}  // namespace vantor::platform
