// The only source of this library that includes libsecret (and so GLib).
#include "SecretStore.hpp"

#include <libsecret/secret.h>

#include <cstdlib>

#include "vantor/util/LogAccounts.hpp"

namespace vantor::account::detail {

namespace {

const SecretSchema* schema() {
  static const SecretSchema tokens = {
      "com.vantor.account.Tokens",
      SECRET_SCHEMA_NONE,
      {{"application", SECRET_SCHEMA_ATTRIBUTE_STRING}, {"uuid", SECRET_SCHEMA_ATTRIBUTE_STRING}, {nullptr, {}}},
      0, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr};
  return &tokens;
}

// Takes over a GError and gives its message.
std::string messageOf(GError* error) {
  std::string message = error != nullptr && error->message != nullptr ? error->message : "unknown error";
  g_clear_error(&error);
  return message;
}

}  // namespace

std::unique_ptr<SecretStore> SecretStore::connect(std::string application) {
  // Without a session bus address libsecret would try to start a bus of its
  // own (through X11), which a service or a terminal session must not do.
  const char* bus = std::getenv("DBUS_SESSION_BUS_ADDRESS");
  if (bus == nullptr || *bus == '\0') {
    return nullptr;
  }
  GError* error = nullptr;
  SecretService* service = secret_service_get_sync(SECRET_SERVICE_LOAD_COLLECTIONS, nullptr, &error);
  if (service == nullptr) {
    util::logAccounts().info("No Secret Service: " + messageOf(error));
    return nullptr;
  }
  // Storing into a locked collection would wait for the user to unlock it,
  // which nobody may be there to do.
  SecretCollection* collection =
      secret_collection_for_alias_sync(service, SECRET_COLLECTION_DEFAULT, SECRET_COLLECTION_NONE, nullptr, &error);
  const bool usable = collection != nullptr && !secret_collection_get_locked(collection);
  if (collection != nullptr) {
    g_object_unref(collection);
  }
  g_object_unref(service);
  if (!usable) {
    util::logAccounts().info("The Secret Service's default keyring is missing or locked" +
                             (error != nullptr ? ": " + messageOf(error) : std::string()));
    g_clear_error(&error);
    return nullptr;
  }
  return std::unique_ptr<SecretStore>(new SecretStore(std::move(application)));
}

bool SecretStore::store(const std::string& uuid, const std::string& secret) {
  GError* error = nullptr;
  const std::string label = application_ + " sign-in";
  if (!secret_password_store_sync(schema(), SECRET_COLLECTION_DEFAULT, label.c_str(), secret.c_str(), nullptr,
                                  &error, "application", application_.c_str(), "uuid", uuid.c_str(), nullptr)) {
    util::logAccounts().error("Could not keep the tokens in the Secret Service: " + messageOf(error));
    return false;
  }
  return true;
}

std::optional<std::string> SecretStore::lookup(const std::string& uuid) {
  GError* error = nullptr;
  gchar* secret = secret_password_lookup_sync(schema(), nullptr, &error, "application", application_.c_str(),
                                              "uuid", uuid.c_str(), nullptr);
  if (error != nullptr) {
    util::logAccounts().error("Could not read the tokens from the Secret Service: " + messageOf(error));
  }
  if (secret == nullptr) {
    return std::nullopt;
  }
  std::string text(secret);
  secret_password_free(secret);
  return text;
}

void SecretStore::remove(const std::string& uuid) {
  GError* error = nullptr;
  secret_password_clear_sync(schema(), nullptr, &error, "application", application_.c_str(), "uuid",
                             uuid.c_str(), nullptr);
  if (error != nullptr) {
    util::logAccounts().warning("Could not remove tokens from the Secret Service: " + messageOf(error));
  }
}

}  // namespace vantor::account::detail
