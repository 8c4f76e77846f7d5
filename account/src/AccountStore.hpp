#pragma once

#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "SecretStore.hpp"

#include "vantor/account/QMAccountTokens.hpp"

namespace vantor::account::detail {

// What the store keeps of one account.
struct StoredAccount {
  std::string uuid;
  std::string classTypeIdentifier;
  std::optional<std::string> serviceName;
  std::optional<std::string> identifier;
  std::optional<std::string> email;
  QMAccountTokens tokens;

  friend bool operator==(const StoredAccount&, const StoredAccount&) = default;
};

// The accounts file: a JSON document that may hold tokens, so it lives in a
// folder of mode 0700, has mode 0600, and is only ever replaced whole
// (written to a temporary file beside it, flushed, then renamed over it).
// Given a Secret Service, the tokens go there instead and the file keeps
// the rest; an account whose tokens cannot be found there loads without
// tokens.
//
// Not thread-safe: the account manager serialises its use.
class AccountStore {
 public:
  explicit AccountStore(std::filesystem::path file, std::shared_ptr<SecretStore> secrets = nullptr)
      : file_(std::move(file)), secrets_(std::move(secrets)) {}

  [[nodiscard]] const std::filesystem::path& file() const noexcept { return file_; }

  // The stored accounts; none when there is no file yet. A file that cannot
  // be read as a store is moved aside to "<file>.corrupt-<time>" (never
  // deleted), logged, and taken as empty. A file over 256 KiB, not a regular
  // file, owned by another user or writable by group or others is refused:
  // logged, left alone and taken as empty.
  std::vector<StoredAccount> load();

  // Replaces the file with `accounts`. False (and logged) on failure, when
  // the previous file is left as it was.
  bool save(const std::vector<StoredAccount>& accounts);

 private:
  std::optional<std::string> readPrivateFile() const;
  QMAccountTokens secretTokens(const std::string& uuid);

  std::filesystem::path file_;
  std::shared_ptr<SecretStore> secrets_;
  // Accounts whose tokens the Secret Service may hold, so that removing an
  // account removes its item too.
  std::set<std::string> secretUuids_;
};

// The user's configuration directory: $XDG_CONFIG_HOME when it is an
// absolute path, else "$HOME/.config" (Linux); "$HOME/Library/Application
// Support" (macOS). `environment` reads a variable (std::getenv by default).
std::filesystem::path userConfigurationDirectory(
    const std::function<const char*(const char*)>& environment = nullptr);

}  // namespace vantor::account::detail
