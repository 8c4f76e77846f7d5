#include "InMemoryAccountLayer.hpp"

#include <algorithm>
#include <atomic>

#include <vantor/account/QMAccountConstants.hpp>
#include <vantor/account/QMNotificationCenter.hpp>
#include <vantor/platform/EventLoop.hpp>

namespace vantor::account::testing {

std::vector<std::shared_ptr<QMAccount>> InMemoryAccountManager::accounts() const {
  std::lock_guard lock(mutex_);
  return accounts_;
}

void InMemoryAccountManager::addAccount(std::shared_ptr<QMAccount> account) {
  std::lock_guard lock(mutex_);
  accounts_.push_back(std::move(account));
}

void InMemoryAccountManager::removeAccount(const std::shared_ptr<QMAccount>& account) {
  std::lock_guard lock(mutex_);
  std::erase_if(accounts_, [&account](const auto& stored) { return stored == account; });
}

void InMemoryAccountManager::clear() {
  std::lock_guard lock(mutex_);
  accounts_.clear();
}

std::optional<std::string> ScriptedAuthorizer::authorizationURL() {
  std::lock_guard lock(mutex_);
  return url_;
}

void ScriptedAuthorizer::exchangeCode(const std::string& code, bool addToStore,
                                      const std::string& redirectURL) {
  Outcome outcome;
  {
    std::lock_guard lock(mutex_);
    exchanges_.push_back({code, addToStore, redirectURL});
    outcome = outcome_;
  }
  if (outcome == Outcome::silent) {
    return;
  }
  if (outcome == Outcome::signIn) {
    if (auto account = account_.lock()) {
      account->setIdentity("user-1", "user@example.test");
      QMAccountTokens tokens;
      tokens.accessToken = "token-for-" + code;
      account->setTokens(tokens);
      manager_->addAccount(account);
    }
  }
  postAccountDidChange();
}

void ScriptedAuthorizer::script(Outcome outcome, std::optional<std::string> url) {
  std::lock_guard lock(mutex_);
  outcome_ = outcome;
  url_ = std::move(url);
}

std::vector<ScriptedAuthorizer::Exchange> ScriptedAuthorizer::exchanges() const {
  std::lock_guard lock(mutex_);
  return exchanges_;
}

std::shared_ptr<QMAccount> InMemoryAccountFactory::createAccount(std::optional<boost::uuids::uuid>,
                                                                 std::uint32_t,
                                                                 QMWebServiceProvider) {
  static std::atomic<int> counter{0};
  std::lock_guard lock(mutex_);
  if (makes_ == Makes::nothing) {
    return nullptr;
  }
  std::shared_ptr<QMAccount> account;
  if (makes_ == Makes::otherAccount) {
    account = std::make_shared<OtherAccount>();
  } else {
    account = std::make_shared<QMQuelmoConnectAccount>("00000000-0000-0000-0000-" +
                                                       std::to_string(100000000000 + ++counter));
  }
  if (makes_ != Makes::withoutServiceName) {
    account->setServiceName("Quelmo Connect");
  }
  last_ = std::make_shared<ScriptedAuthorizer>(manager_, account);
  last_->script(outcome_, url_);
  if (makes_ != Makes::withoutAuthorizer) {
    account->setWebServiceAuthorizer(last_);
  }
  return account;
}

void InMemoryAccountFactory::setMakes(Makes makes) {
  std::lock_guard lock(mutex_);
  makes_ = makes;
}

void InMemoryAccountFactory::script(ScriptedAuthorizer::Outcome outcome,
                                    std::optional<std::string> url) {
  std::lock_guard lock(mutex_);
  outcome_ = outcome;
  url_ = std::move(url);
}

std::shared_ptr<ScriptedAuthorizer> InMemoryAccountFactory::lastAuthorizer() const {
  std::lock_guard lock(mutex_);
  return last_;
}

std::shared_ptr<QMQuelmoConnectAccount> makeAccount(const std::string& identifier,
                                                    const std::string& email,
                                                    std::optional<std::string> token) {
  auto account = std::make_shared<QMQuelmoConnectAccount>("11111111-2222-3333-4444-555555555555");
  account->setServiceName("Quelmo Connect");
  account->setIdentity(identifier, email);
  QMAccountTokens tokens;
  tokens.accessToken = std::move(token);
  account->setTokens(tokens);
  return account;
}

void postAccountDidChange() {
  platform::EventLoop::main().post([] {
    QMNotificationCenter::defaultCenter().post(
        std::string(QMAccountConstants::QuelmoConnect::accountDidChangeNotificationString));
  });
}

}  // namespace vantor::account::testing
