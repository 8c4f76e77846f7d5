#pragma once

#include <string>

namespace vantor::account::detail {

// The host's bundle identifier (QMHostApplication) for naming the files the
// desktop integration makes. Throws std::runtime_error, saying it is needed
// `forWhat`, when it is empty or holds a character other than letters,
// digits, '.', '-' and '_'.
std::string bundleIdentifierForFileNames(const std::string& forWhat);

}  // namespace vantor::account::detail
