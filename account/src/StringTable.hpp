#pragma once

#include <string>
#include <string_view>

namespace vantor::account {

// The text under `key` in the compiled-in string table `table`; the key
// itself when there is none, so a missing text shows up instead of vanishing.
std::string localizedString(std::string_view table, std::string_view key);

}  // namespace vantor::account
