#include "vantor/account/QMURLSchemeRegistration.hpp"

#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <stdexcept>

#include "BundleFileName.hpp"
#include "vantor/account/QMHostApplication.hpp"

namespace vantor::account {

namespace fs = std::filesystem;

namespace {

constexpr std::string_view mimePrefix = "x-scheme-handler/";
constexpr std::string_view entryGroup = "[Desktop Entry]";
constexpr std::string_view defaultsGroup = "[Default Applications]";
constexpr std::string_view addedGroup = "[Added Associations]";

// A scheme as RFC 3986 has it, lower-cased; none for http(s) and file,
// which belong to the browser.
std::optional<std::string> normalisedScheme(std::string_view text) {
  if (text.empty() || std::isalpha(static_cast<unsigned char>(text.front())) == 0) {
    return std::nullopt;
  }
  std::string scheme;
  for (char c : text) {
    const auto u = static_cast<unsigned char>(c);
    if (std::isalnum(u) == 0 && c != '+' && c != '-' && c != '.') {
      return std::nullopt;
    }
    scheme += static_cast<char>(std::tolower(u));
  }
  if (scheme == "http" || scheme == "https" || scheme == "file") {
    return std::nullopt;
  }
  return scheme;
}

std::string requiredScheme(const std::string& scheme) {
  auto normalised = normalisedScheme(scheme);
  if (!normalised) {
    throw std::runtime_error("\"" + scheme + "\" is not a URL scheme an application can handle");
  }
  return *normalised;
}

fs::path xdgFolder(const char* variable, const char* underHome) {
  if (const char* value = std::getenv(variable); value != nullptr && fs::path(value).is_absolute()) {
    return value;
  }
  const char* home = std::getenv("HOME");
  if (home == nullptr || !fs::path(home).is_absolute()) {
    throw std::runtime_error(std::string("neither $") + variable + " nor $HOME is an absolute path");
  }
  return fs::path(home) / underHome;
}

std::string desktopId() {
  const auto bundle = detail::bundleIdentifierForFileNames("to register a URL scheme");
  // Not the application's own entry, which a package may install under the
  // bare identifier: this one is hidden from menus.
  return bundle + ".urlhandler.desktop";
}

std::vector<std::string> readLines(const fs::path& path) {
  std::vector<std::string> lines;
  std::ifstream in(path);
  for (std::string line; std::getline(in, line);) {
    lines.push_back(line);
  }
  return lines;
}

// Replaces `path` whole, so that a reader never sees half a file.
void writeLines(const fs::path& path, const std::vector<std::string>& lines) {
  std::error_code error;
  fs::create_directories(path.parent_path(), error);
  const fs::path temporary = path.string() + ".tmp-" + std::to_string(::getpid());
  {
    std::ofstream out(temporary, std::ios::trunc);
    for (const auto& line : lines) {
      out << line << '\n';
    }
    out.flush();
    if (!out) {
      fs::remove(temporary, error);
      throw std::runtime_error("cannot write " + path.string());
    }
  }
  fs::rename(temporary, path, error);
  if (error) {
    fs::remove(temporary, error);
    throw std::runtime_error("cannot replace " + path.string() + ": " + error.message());
  }
}

// One argument of an Exec line: quoted when it holds a reserved character,
// then escaped as a desktop-entry string value.
std::string execArgument(const std::string& argument) {
  static constexpr std::string_view reserved = " \t\n\"'\\><~|&;$*?#()`";
  std::string quoted;
  if (argument.empty() || argument.find_first_of(reserved) != std::string::npos) {
    quoted = "\"";
    for (char c : argument) {
      if (c == '"' || c == '`' || c == '$' || c == '\\') {
        quoted += '\\';
      }
      quoted += c;
    }
    quoted += '"';
  } else {
    quoted = argument;
  }
  std::string value;
  for (char c : quoted) {
    if (c == '\\') {
      value += "\\\\";
    } else if (c == '%') {
      value += "%%";
    } else if (c == '\n') {
      value += "\\n";
    } else {
      value += c;
    }
  }
  return value;
}

std::vector<std::string> splitList(std::string_view value) {
  std::vector<std::string> items;
  std::string item;
  for (char c : value) {
    if (c == ';') {
      if (!item.empty()) {
        items.push_back(item);
      }
      item.clear();
    } else {
      item += c;
    }
  }
  if (!item.empty()) {
    items.push_back(item);
  }
  return items;
}

std::string joinList(const std::vector<std::string>& items) {
  std::string value;
  for (const auto& item : items) {
    value += item + ";";
  }
  return value;
}

std::string trimmed(std::string_view text) {
  const auto first = text.find_first_not_of(" \t");
  if (first == std::string_view::npos) {
    return {};
  }
  const auto last = text.find_last_not_of(" \t\r");
  return std::string(text.substr(first, last - first + 1));
}

bool isGroup(const std::string& line) { return !line.empty() && line.front() == '['; }

// The schemes in an entry's MimeType line.
std::vector<std::string> schemesOf(const std::vector<std::string>& entry) {
  std::vector<std::string> schemes;
  for (const auto& line : entry) {
    if (line.rfind("MimeType=", 0) == 0) {
      for (const auto& type : splitList(line.substr(9))) {
        if (type.rfind(mimePrefix, 0) == 0) {
          schemes.push_back(type.substr(mimePrefix.size()));
        }
      }
    }
  }
  return schemes;
}

// Edits the value of `key` in `group` of an ini-style file: `edit` gets the
// current value (none when absent) and returns the new one (none removes the
// line). Answers whether anything changed.
template <class Edit>
bool editKey(std::vector<std::string>& lines, std::string_view group, const std::string& key, Edit edit) {
  bool inGroup = false;
  std::optional<std::size_t> groupLine;
  for (std::size_t i = 0; i < lines.size(); ++i) {
    if (isGroup(lines[i])) {
      inGroup = trimmed(lines[i]) == group;
      if (inGroup) {
        groupLine = i;
      }
      continue;
    }
    const auto equals = lines[i].find('=');
    if (!inGroup || equals == std::string::npos || trimmed(lines[i].substr(0, equals)) != key) {
      continue;
    }
    const std::string current = trimmed(lines[i].substr(equals + 1));
    auto next = edit(std::optional<std::string>(current));
    if (next && *next == current) {
      return false;
    }
    if (next) {
      lines[i] = key + "=" + *next;
    } else {
      lines.erase(lines.begin() + static_cast<std::ptrdiff_t>(i));
    }
    return true;
  }
  auto next = edit(std::optional<std::string>());
  if (!next) {
    return false;
  }
  if (groupLine) {
    lines.insert(lines.begin() + static_cast<std::ptrdiff_t>(*groupLine + 1), key + "=" + *next);
  } else {
    if (!lines.empty() && !lines.back().empty()) {
      lines.emplace_back();
    }
    lines.emplace_back(group);
    lines.push_back(key + "=" + *next);
  }
  return true;
}

}  // namespace

std::optional<std::string> QMURLSchemeRegistration::schemeOf(std::string_view redirectURI) {
  const auto colon = redirectURI.find(':');
  if (colon == std::string_view::npos) {
    return std::nullopt;
  }
  return normalisedScheme(redirectURI.substr(0, colon));
}

QMURLSchemeRegistration::Files QMURLSchemeRegistration::files() {
  return {xdgFolder("XDG_DATA_HOME", ".local/share") / "applications" / desktopId(),
          xdgFolder("XDG_CONFIG_HOME", ".config") / "mimeapps.list"};
}

QMURLSchemeRegistration::Files QMURLSchemeRegistration::registerHandler(const std::string& scheme,
                                                                        const std::vector<std::string>& command) {
  const auto normalised = requiredScheme(scheme);
  if (command.empty() || !fs::path(command.front()).is_absolute()) {
    throw std::runtime_error("the handler's command needs the program's absolute path");
  }
  const auto where = files();
  auto schemes = schemesOf(readLines(where.desktopEntry));
  if (std::find(schemes.begin(), schemes.end(), normalised) == schemes.end()) {
    schemes.push_back(normalised);
  }
  std::string exec;
  for (const auto& argument : command) {
    exec += execArgument(argument) + " ";
  }
  std::vector<std::string> types;
  for (const auto& each : schemes) {
    types.push_back(std::string(mimePrefix) + each);
  }
  std::string name;
  for (char c : QMHostApplication::name()) {
    name += c == '\n' ? ' ' : c;
  }
  writeLines(where.desktopEntry, {std::string(entryGroup), "Type=Application", "Name=" + name,
                                  "Exec=" + exec + "%u", "Terminal=false", "NoDisplay=true",
                                  "MimeType=" + joinList(types)});

  auto mimeApps = readLines(where.mimeApps);
  const auto id = where.desktopEntry.filename().string();
  if (editKey(mimeApps, defaultsGroup, std::string(mimePrefix) + normalised,
              [&](const std::optional<std::string>&) { return std::optional<std::string>(id); })) {
    writeLines(where.mimeApps, mimeApps);
  }
  return where;
}

bool QMURLSchemeRegistration::unregisterHandler(const std::string& scheme) {
  const auto normalised = requiredScheme(scheme);
  const auto where = files();
  const auto id = where.desktopEntry.filename().string();
  bool removed = false;

  auto mimeApps = readLines(where.mimeApps);
  bool changed = false;
  for (auto group : {defaultsGroup, addedGroup}) {
    changed |= editKey(mimeApps, group, std::string(mimePrefix) + normalised,
                       [&](const std::optional<std::string>& value) -> std::optional<std::string> {
                         if (!value) {
                           return std::nullopt;
                         }
                         auto items = splitList(*value);
                         std::erase(items, id);
                         return items.empty() ? std::nullopt : std::optional<std::string>(joinList(items));
                       });
  }
  if (changed) {
    writeLines(where.mimeApps, mimeApps);
    removed = true;
  }

  auto entry = readLines(where.desktopEntry);
  auto schemes = schemesOf(entry);
  if (std::erase(schemes, normalised) > 0) {
    removed = true;
    if (schemes.empty()) {
      std::error_code error;
      if (!fs::remove(where.desktopEntry, error) && error) {
        throw std::runtime_error("cannot remove " + where.desktopEntry.string() + ": " + error.message());
      }
    } else {
      std::vector<std::string> types;
      for (const auto& each : schemes) {
        types.push_back(std::string(mimePrefix) + each);
      }
      for (auto& line : entry) {
        if (line.rfind("MimeType=", 0) == 0) {
          line = "MimeType=" + joinList(types);
        }
      }
      writeLines(where.desktopEntry, entry);
    }
  }
  return removed;
}

}  // namespace vantor::account
