#include "AccountStore.hpp"

#include <fcntl.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <boost/json.hpp>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <set>

#include "OAuthSupport.hpp"
#include "vantor/util/LogAccounts.hpp"

namespace vantor::account::detail {

namespace json = boost::json;
namespace fs = std::filesystem;
using util::logAccounts;

namespace {

constexpr int formatVersion = 1;
// Far more than a few accounts take; a larger file is not ours.
constexpr off_t largestFile = 256 * 1024;
// The value of an entry's "tokensIn" when the Secret Service holds them.
constexpr std::string_view secretServiceName = "secret-service";

json::value optionalText(const std::optional<std::string>& text) {
  return text ? json::value(*text) : json::value(nullptr);
}

std::int64_t toUnixSeconds(std::chrono::system_clock::time_point time) {
  return std::chrono::duration_cast<std::chrono::seconds>(time.time_since_epoch()).count();
}

json::object tokensToJson(const QMAccountTokens& tokens) {
  json::object object;
  object["accessToken"] = optionalText(tokens.accessToken);
  object["refreshToken"] = optionalText(tokens.refreshToken);
  object["idToken"] = optionalText(tokens.idToken);
  object["tokenType"] = optionalText(tokens.tokenType);
  object["expiresAt"] = tokens.expiresAt ? json::value(toUnixSeconds(*tokens.expiresAt)) : json::value(nullptr);
  return object;
}

// With `tokensElsewhere` the entry only says where its tokens are.
json::object toJson(const StoredAccount& account, bool tokensElsewhere) {
  json::object object;
  object["uuid"] = account.uuid;
  object["class"] = account.classTypeIdentifier;
  object["serviceName"] = optionalText(account.serviceName);
  object["identifier"] = optionalText(account.identifier);
  object["email"] = optionalText(account.email);
  object["tokens"] = tokensToJson(tokensElsewhere ? QMAccountTokens{} : account.tokens);
  if (tokensElsewhere) {
    object["tokensIn"] = secretServiceName;
  }
  return object;
}

// Reading throws std::exception (from Boost.JSON's accessors, or our own)
// for anything that is not a store; load() turns that into "corrupt".
std::optional<std::string> textAt(const json::object& object, std::string_view key) {
  const auto* value = object.if_contains(key);
  if (value == nullptr || value->is_null()) {
    return std::nullopt;
  }
  return std::string(value->as_string());
}

QMAccountTokens tokensFromJson(const json::value& value) {
  const auto& object = value.as_object();
  QMAccountTokens tokens;
  tokens.accessToken = textAt(object, "accessToken");
  tokens.refreshToken = textAt(object, "refreshToken");
  tokens.idToken = textAt(object, "idToken");
  tokens.tokenType = textAt(object, "tokenType");
  if (const auto* expires = object.if_contains("expiresAt"); expires && !expires->is_null()) {
    tokens.expiresAt = unixTimeIn(*expires);
    if (!tokens.expiresAt) {
      throw std::runtime_error("expiry out of range");
    }
  }
  return tokens;
}

StoredAccount fromJson(const json::value& value) {
  const auto& object = value.as_object();
  StoredAccount account;
  account.uuid = std::string(object.at("uuid").as_string());
  account.classTypeIdentifier = std::string(object.at("class").as_string());
  account.serviceName = textAt(object, "serviceName");
  account.identifier = textAt(object, "identifier");
  account.email = textAt(object, "email");
  account.tokens = tokensFromJson(object.at("tokens"));
  if (account.uuid.empty()) {
    throw std::runtime_error("account without uuid");
  }
  return account;
}

std::string errnoText() { return std::strerror(errno); }

// Makes `directory` and missing parents with mode 0700, and takes group and
// other access away from an existing `directory`: the file in it holds tokens.
bool makePrivateDirectory(const fs::path& directory) {
  fs::path partial;
  for (const auto& part : directory) {
    partial /= part;
    if (::mkdir(partial.c_str(), 0700) != 0 && errno != EEXIST) {
      logAccounts().error("Could not create the account folder: " + errnoText());
      return false;
    }
  }
  // Only group and other bits go: an owner who made the folder stricter
  // still than 0700 is left alone.
  struct stat info {};
  if (::stat(directory.c_str(), &info) != 0 ||
      ((info.st_mode & 077) != 0 && ::chmod(directory.c_str(), info.st_mode & 0700) != 0)) {
    logAccounts().error("Could not restrict the account folder: " + errnoText());
    return false;
  }
  return true;
}

bool writeAll(int fd, const std::string& text) {
  std::size_t written = 0;
  while (written < text.size()) {
    auto n = ::write(fd, text.data() + written, text.size() - written);
    if (n < 0) {
      if (errno == EINTR) {
        continue;
      }
      return false;
    }
    written += static_cast<std::size_t>(n);
  }
  return true;
}

void syncDirectory(const fs::path& directory) {
  int fd = ::open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (fd >= 0) {
    ::fsync(fd);
    ::close(fd);
  }
}

std::string timestamp() {
  auto now = std::chrono::system_clock::now();
  return std::to_string(
      std::chrono::duration_cast<std::chrono::milliseconds>(now.time_since_epoch()).count());
}

}  // namespace

std::optional<std::string> AccountStore::readPrivateFile() const {
  int fd = ::open(file_.c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC | O_NONBLOCK);
  if (fd < 0) {
    if (errno != ENOENT) {
      logAccounts().error("The account store " + file_.string() + " cannot be opened: " + errnoText());
    }
    return std::nullopt;
  }
  // Checked on the open file, so that it cannot be swapped in between. A
  // file that someone else owns or may write could hand us their tokens.
  struct stat info {};
  std::string problem;
  if (::fstat(fd, &info) != 0) {
    problem = errnoText();
  } else if (!S_ISREG(info.st_mode)) {
    problem = "not a regular file";
  } else if (info.st_uid != ::geteuid()) {
    problem = "owned by another user";
  } else if ((info.st_mode & (S_IWGRP | S_IWOTH)) != 0) {
    problem = "writable by others";
  } else if (info.st_size > largestFile) {
    problem = "larger than " + std::to_string(largestFile) + " bytes";
  }
  std::string content;
  if (problem.empty()) {
    content.resize(static_cast<std::size_t>(info.st_size));
    std::size_t filled = 0;
    while (filled < content.size()) {
      auto n = ::read(fd, content.data() + filled, content.size() - filled);
      if (n < 0 && errno == EINTR) {
        continue;
      }
      if (n <= 0) {
        break;
      }
      filled += static_cast<std::size_t>(n);
    }
    content.resize(filled);
  }
  ::close(fd);
  if (!problem.empty()) {
    logAccounts().error("The account store " + file_.string() + " is refused (" + problem +
                        "); sign-in starts afresh");
    return std::nullopt;
  }
  return content;
}

std::vector<StoredAccount> AccountStore::load() {
  auto content = readPrivateFile();
  if (!content) {
    return {};
  }
  try {
    auto document = json::parse(*content).as_object();
    if (document.at("version").to_number<int>() != formatVersion) {
      throw std::runtime_error("unknown version");
    }
    std::vector<StoredAccount> accounts;
    for (const auto& entry : document.at("accounts").as_array()) {
      accounts.push_back(fromJson(entry));
      const auto* where = entry.as_object().if_contains("tokensIn");
      if (where != nullptr && where->is_string() && where->as_string() == secretServiceName) {
        accounts.back().tokens = secretTokens(accounts.back().uuid);
      }
      secretUuids_.insert(accounts.back().uuid);
    }
    return accounts;
  } catch (const std::exception& e) {
    auto aside = file_;
    aside += ".corrupt-" + timestamp();
    std::error_code error;
    fs::rename(file_, aside, error);
    if (error) {
      logAccounts().error("The account store " + file_.string() + " is unreadable (" + e.what() +
                          ") and could not be moved aside: " + error.message());
    } else {
      logAccounts().error("The account store " + file_.string() + " was unreadable (" + e.what() +
                          "); it was moved to " + aside.string() + " and sign-in starts afresh");
    }
    return {};
  }
}

bool AccountStore::save(const std::vector<StoredAccount>& accounts) {
  auto directory = file_.parent_path();
  if (!makePrivateDirectory(directory)) {
    return false;
  }
  json::array list;
  std::set<std::string> kept;
  for (const auto& account : accounts) {
    bool elsewhere = false;
    if (secrets_) {
      if (account.tokens == QMAccountTokens{}) {
        secrets_->remove(account.uuid);
      } else {
        // Should the Secret Service fail, the tokens stay in the file.
        elsewhere = secrets_->store(account.uuid, json::serialize(tokensToJson(account.tokens)));
      }
      kept.insert(account.uuid);
    }
    list.push_back(toJson(account, elsewhere));
  }
  json::object document;
  document["version"] = formatVersion;
  document["accounts"] = std::move(list);
  auto text = json::serialize(document);

  // mkstemp makes the file with mode 0600, so tokens are never readable by
  // others, not even while the file is written.
  std::string temporary = (directory / (file_.filename().string() + ".XXXXXX")).string();
  int fd = ::mkstemp(temporary.data());
  if (fd < 0) {
    logAccounts().error("Could not write the account store: " + errnoText());
    return false;
  }
  bool written = ::fchmod(fd, 0600) == 0 && writeAll(fd, text) && ::fsync(fd) == 0;
  written = (::close(fd) == 0) && written;
  if (!written || ::rename(temporary.c_str(), file_.c_str()) != 0) {
    logAccounts().error("Could not write the account store: " + errnoText());
    ::unlink(temporary.c_str());
    return false;
  }
  syncDirectory(directory);
  // Accounts that are gone take their tokens with them.
  if (secrets_) {
    for (const auto& uuid : secretUuids_) {
      if (kept.count(uuid) == 0) {
        secrets_->remove(uuid);
      }
    }
    secretUuids_ = std::move(kept);
  }
  return true;
}

QMAccountTokens AccountStore::secretTokens(const std::string& uuid) {
  auto text = secrets_ ? secrets_->lookup(uuid) : std::nullopt;
  if (!text) {
    logAccounts().error("The tokens of a stored account are not in the Secret Service" +
                        std::string(secrets_ ? "" : ", which is not available") + "; it must sign in again");
    return {};
  }
  boost::system::error_code error;
  auto value = json::parse(*text, error);
  try {
    if (!error) {
      return tokensFromJson(value);
    }
  } catch (const std::exception&) {
  }
  logAccounts().error("The Secret Service holds unreadable tokens for a stored account; it must sign in again");
  return {};
}

fs::path userConfigurationDirectory(const std::function<const char*(const char*)>& environment) {
  auto get = [&environment](const char* name) -> std::string {
    const char* value = environment ? environment(name) : std::getenv(name);
    return value != nullptr ? value : "";
  };
  auto home = [&get]() -> fs::path {
    if (auto value = get("HOME"); !value.empty()) {
      return value;
    }
    if (const auto* entry = ::getpwuid(::getuid()); entry != nullptr && entry->pw_dir != nullptr) {
      return entry->pw_dir;
    }
    return "/";
  };
#if defined(__APPLE__)
  return home() / "Library" / "Application Support";
#else
  // Relative values are invalid by the XDG rules and are ignored.
  if (fs::path xdg = get("XDG_CONFIG_HOME"); xdg.is_absolute()) {
    return xdg;
  }
  return home() / ".config";
#endif
}

}  // namespace vantor::account::detail
