#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace vantor::platform {

/// The two alphabets of RFC 4648: "+/" (standard), and "-_" (section 5, for
/// URLs and file names).
enum class Base64Alphabet { standard, url };

/// `bytes` in base64, "=" padded when `pad`.
std::string base64Encode(std::string_view bytes, Base64Alphabet alphabet = Base64Alphabet::standard,
                         bool pad = true);

/// `text` decoded, with or without "=" padding; none for a character outside
/// `alphabet` or a length that no encoding has.
std::optional<std::string> base64Decode(std::string_view text,
                                        Base64Alphabet alphabet = Base64Alphabet::standard);

}  // namespace vantor::platform
