#include "vantor/account/QMOAuthAccountManager.hpp"

#include <algorithm>
#include <boost/uuid/random_generator.hpp>
#include <boost/uuid/uuid_io.hpp>
#include <cctype>
#include <mutex>
#include <openssl/crypto.h>

#include "AccountStore.hpp"
#include "OAuthAuthorizer.hpp"
#include "ServiceEndpoints.hpp"
#include "TokenEndpoint.hpp"
#include "vantor/platform/EventLoop.hpp"
#include "vantor/account/QMAccountFactory.hpp"
#include "vantor/account/QMHostApplication.hpp"
#include "vantor/account/QMOAuthAccountFactory.hpp"
#include "vantor/util/LogAccounts.hpp"

namespace vantor::account {

namespace fs = std::filesystem;

struct QMOAuthAccountManager::Impl {
  explicit Impl(QMOAuthServiceConfiguration configuration)
      : configuration(std::move(configuration)),
        endpoints(std::make_shared<detail::ServiceEndpoints>(this->configuration)) {}

  const QMOAuthServiceConfiguration configuration;
  const std::shared_ptr<detail::ServiceEndpoints> endpoints;
  std::weak_ptr<QMOAuthAccountManager> self;

  std::mutex mutex;
  // Fixed on first use, when the host's bundle identifier is known.
  std::optional<detail::AccountStore> store;
  std::vector<std::shared_ptr<QMAccount>> accounts;
  // Entries of account classes this manager does not make, written back as
  // they were so that they are not lost.
  std::vector<detail::StoredAccount> foreign;
};

namespace {

// The folder of the store: the bundle identifier, or the application's name
// when there is none, made safe as one path component.
std::string folderName(const QMAccountManager& manager) {
  std::string name;
  if (const auto* app = manager.appIdentifyingDelegate()) {
    name = app->bundleIdentifier();
    if (name.empty()) {
      name = app->appName();
    }
  }
  if (name.empty()) {
    name = QMHostApplication::bundleIdentifier();
  }
  if (name.empty()) {
    name = QMHostApplication::name();
  }
  std::replace(name.begin(), name.end(), '/', '_');
  if (name.empty() || name == "." || name == "..") {
    name = "VantorClient";
  }
  return name;
}

detail::StoredAccount toStored(const QMAccount& account) {
  return {account.uuid(),    std::string(account.classTypeIdentifier()),
          account.serviceName(), account.identifier(),
          account.email(),   account.tokens()};
}

// Upper-case, as the platform writes UUIDs.
std::string uuidText(const boost::uuids::uuid& uuid) {
  auto text = boost::uuids::to_string(uuid);
  std::transform(text.begin(), text.end(), text.begin(),
                 [](unsigned char c) { return static_cast<char>(std::toupper(c)); });
  return text;
}

auto sameUuidAs(const std::shared_ptr<QMAccount>& account) {
  return [&account](const std::shared_ptr<QMAccount>& stored) { return stored->uuid() == account->uuid(); };
}

}  // namespace

std::shared_ptr<QMOAuthAccountManager> QMOAuthAccountManager::make(
    QMOAuthServiceConfiguration configuration) {
  // OpenSSL sets itself up on first use, and keeps state for the thread that
  // does so. Doing it here, on the host's thread, keeps that state off the
  // event loop's thread, which outlives OpenSSL's own clean-up at exit.
  OPENSSL_init_crypto(OPENSSL_INIT_LOAD_CONFIG, nullptr);
  std::shared_ptr<QMOAuthAccountManager> manager(new QMOAuthAccountManager(std::move(configuration)));
  manager->impl_->self = manager;
  return manager;
}

std::shared_ptr<QMOAuthAccountManager> QMOAuthAccountManager::install(
    QMOAuthServiceConfiguration configuration) {
  auto manager = make(std::move(configuration));
  QMAccountManager::setShared(manager);
  QMAccountFactory::setShared(std::make_shared<QMOAuthAccountFactory>(manager));
  return manager;
}

QMOAuthAccountManager::QMOAuthAccountManager(QMOAuthServiceConfiguration configuration)
    : impl_(std::make_unique<Impl>(std::move(configuration))) {}

QMOAuthAccountManager::~QMOAuthAccountManager() = default;

const QMOAuthServiceConfiguration& QMOAuthAccountManager::configuration() const noexcept {
  return impl_->configuration;
}

std::shared_ptr<QMQuelmoConnectAccount> QMOAuthAccountManager::createAccount(
    std::optional<boost::uuids::uuid> identifier) {
  auto uuid = uuidText(identifier.value_or(boost::uuids::random_generator()()));
  auto account = std::make_shared<QMQuelmoConnectAccount>(std::move(uuid));
  account->setServiceName(impl_->configuration.serviceName);
  account->setWebServiceAuthorizer(
      std::make_shared<detail::OAuthAuthorizer>(impl_->self, impl_->endpoints, account));
  return account;
}

fs::path QMOAuthAccountManager::storeFile() const {
  std::lock_guard lock(impl_->mutex);
  loadIfNeeded();
  return impl_->store->file();
}

void QMOAuthAccountManager::loadIfNeeded() const {
  if (impl_->store) {
    return;
  }
  auto folder = folderName(*this);
  std::shared_ptr<detail::SecretStore> secrets;
  if (impl_->configuration.useSecretService) {
    secrets = detail::SecretStore::connect(folder);
  }
  impl_->store.emplace(detail::userConfigurationDirectory() / folder / "accounts.json", std::move(secrets));
  for (auto& stored : impl_->store->load()) {
    if (stored.classTypeIdentifier != QMQuelmoConnectAccount::typeIdentifier) {
      impl_->foreign.push_back(std::move(stored));
      continue;
    }
    auto account = std::make_shared<QMQuelmoConnectAccount>(stored.uuid);
    account->setServiceName(stored.serviceName);
    account->setIdentity(stored.identifier, stored.email);
    account->setTokens(stored.tokens);
    account->setWebServiceAuthorizer(
        std::make_shared<detail::OAuthAuthorizer>(impl_->self, impl_->endpoints, account));
    impl_->accounts.push_back(std::move(account));
  }
}

void QMOAuthAccountManager::persist() const {
  std::vector<detail::StoredAccount> entries;
  for (const auto& account : impl_->accounts) {
    entries.push_back(toStored(*account));
  }
  entries.insert(entries.end(), impl_->foreign.begin(), impl_->foreign.end());
  // A failed write is logged by the store; the accounts stay signed in for
  // this run.
  impl_->store->save(entries);
}

std::vector<std::shared_ptr<QMAccount>> QMOAuthAccountManager::accounts() const {
  std::lock_guard lock(impl_->mutex);
  loadIfNeeded();
  return impl_->accounts;
}

void QMOAuthAccountManager::addAccount(std::shared_ptr<QMAccount> account) {
  if (!account) {
    return;
  }
  std::lock_guard lock(impl_->mutex);
  loadIfNeeded();
  auto& accounts = impl_->accounts;
  auto same = std::find_if(accounts.begin(), accounts.end(), sameUuidAs(account));
  if (same != accounts.end()) {
    *same = std::move(account);
  } else {
    accounts.push_back(std::move(account));
  }
  persist();
}

void QMOAuthAccountManager::removeAccount(const std::shared_ptr<QMAccount>& account) {
  if (!account) {
    return;
  }
  std::vector<std::string> refreshTokens;
  {
    std::lock_guard lock(impl_->mutex);
    loadIfNeeded();
    auto& accounts = impl_->accounts;
    auto removed = std::remove_if(accounts.begin(), accounts.end(), sameUuidAs(account));
    if (removed == accounts.end()) {
      return;
    }
    for (auto it = removed; it != accounts.end(); ++it) {
      if (auto token = (*it)->refreshToken()) {
        refreshTokens.push_back(std::move(*token));
      }
      (*it)->setTokens({});
    }
    accounts.erase(removed, accounts.end());
    persist();
  }
  for (auto& token : refreshTokens) {
    revokeInBackground(std::move(token));
  }
}

void QMOAuthAccountManager::revokeInBackground(std::string refreshToken) const {
  const auto& configuration = impl_->configuration;
  auto credentials = detail::registeredCredentials(*this, QMQuelmoConnectAccount::typeIdentifier,
                                                   configuration.serviceName);
  if (!credentials) {
    return;
  }
  // The request holds what it needs, not the manager, and nobody waits for
  // it: signing out is done once the tokens are forgotten here.
  auto endpoints = impl_->endpoints;
  endpoints->resolve([configuration, credentials = std::move(*credentials), refreshToken = std::move(refreshToken),
                      options = endpoints->httpOptions()](const std::optional<detail::Endpoints>& resolved) {
    if (!resolved || !resolved->revocation) {
      return;
    }
    // RFC 7009, section 2.1.
    auto request = detail::clientRequest(*resolved->revocation,
                                         {{"token", refreshToken}, {"token_type_hint", "refresh_token"}},
                                         configuration, credentials);
    detail::sendHttpRequest(platform::EventLoop::main().context(), std::move(request), options,
                            [](const detail::HttpOutcome& outcome) {
                              if (!outcome.succeeded() || outcome.status != 200) {
                                util::logAccounts().warning(
                                    "The service did not confirm that the refresh token was revoked");
                              }
                            });
  });
}

}  // namespace vantor::account
