#pragma once

#include <memory>
#include <optional>
#include <string>

namespace vantor::account::detail {

// Secrets kept by the desktop's Secret Service (GNOME Keyring, KWallet)
// through libsecret, in its default collection, one item per account, found
// by the application's folder name and the account's uuid.
//
// Calls are synchronous D-Bus round trips to a local daemon. Thread safety:
// every member may be called from any thread.
class SecretStore {
 public:
  // The store when the session bus offers a Secret Service whose default
  // collection can be used without asking the user; none otherwise (no
  // bus, no service, or a locked keyring), and the caller falls back.
  static std::unique_ptr<SecretStore> connect(std::string application);

  SecretStore(const SecretStore&) = delete;
  SecretStore& operator=(const SecretStore&) = delete;
  ~SecretStore() = default;

  bool store(const std::string& uuid, const std::string& secret);
  // None when there is no such item, or when it cannot be read.
  std::optional<std::string> lookup(const std::string& uuid);
  void remove(const std::string& uuid);

 private:
  explicit SecretStore(std::string application) : application_(std::move(application)) {}

  const std::string application_;
};

}  // namespace vantor::account::detail
