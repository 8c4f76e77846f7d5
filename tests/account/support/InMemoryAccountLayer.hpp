#pragma once

#include <chrono>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include <vantor/account/QMAccountConstants.hpp>
#include <vantor/account/QMAccountFactory.hpp>
#include <vantor/account/QMAccountManager.hpp>
#include <vantor/account/QMNotificationCenter.hpp>
#include <vantor/account/QMQuelmoConnectAccount.hpp>
#include <vantor/account/QMWebServiceAuthorizer.hpp>
#include <vantor/platform/EventLoop.hpp>

namespace vantor::account::testing {

// Posts the account-did-change notification on the loop, as the account layer does.
inline void postAccountDidChange() {
  platform::EventLoop::main().post([] {
    QMNotificationCenter::defaultCenter().post(
        std::string(QMAccountConstants::QuelmoConnect::accountDidChangeNotificationString));
  });
}

// An account manager that keeps its accounts in memory only.
class InMemoryAccountManager : public QMAccountManager {
 public:
  std::vector<std::shared_ptr<QMAccount>> accounts() const override {
    std::lock_guard lock(mutex_);
    return accounts_;
  }
  void addAccount(std::shared_ptr<QMAccount> account) override {
    std::lock_guard lock(mutex_);
    accounts_.push_back(std::move(account));
  }
  void removeAccount(const std::shared_ptr<QMAccount>& account) override {
    std::lock_guard lock(mutex_);
    std::erase(accounts_, account);
  }
  void clear() {
    std::lock_guard lock(mutex_);
    accounts_.clear();
  }

 private:
  mutable std::mutex mutex_;
  std::vector<std::shared_ptr<QMAccount>> accounts_;
};

// An account of some other service, which the controller must not take for its own.
class OtherAccount : public QMAccount {
 public:
  OtherAccount() : QMAccount("00000000-0000-0000-0000-0000000000AA") {}
  std::string_view classTypeIdentifier() const override { return "com.example.accounts.Other"; }
};

// Makes what the test asks for and is the authoriser of what it makes: the
// code exchange acts on the last account made, as scripted, and reports
// through the account-did-change notification, as the real one does.
class InMemoryAccountFactory : public QMAccountFactory,
                               public QMWebServiceAuthorizer,
                               public std::enable_shared_from_this<InMemoryAccountFactory> {
 public:
  enum class Makes { quelmoConnectAccount, otherAccount, withoutAuthorizer };
  // signIn gives the account a token, stores it and notifies; fail only
  // notifies; silent does nothing.
  enum class Outcome { signIn, fail, silent };

  void setMakes(Makes makes) {
    std::lock_guard lock(mutex_);
    makes_ = makes;
  }
  void script(Outcome outcome, std::optional<std::string> url) {
    std::lock_guard lock(mutex_);
    outcome_ = outcome;
    url_ = std::move(url);
  }
  std::vector<std::string> exchangedCodes() const {
    std::lock_guard lock(mutex_);
    return codes_;
  }

  std::shared_ptr<QMAccount> createAccount(std::optional<boost::uuids::uuid>, std::uint32_t,
                                           QMWebServiceProvider) override {
    std::lock_guard lock(mutex_);
    codes_.clear();
    std::shared_ptr<QMAccount> account =
        makes_ == Makes::otherAccount
            ? std::shared_ptr<QMAccount>(std::make_shared<OtherAccount>())
            : std::make_shared<QMQuelmoConnectAccount>("00000000-0000-0000-0000-000000000001");
    account->setServiceName("Quelmo Connect");
    if (makes_ != Makes::withoutAuthorizer) {
      account->setWebServiceAuthorizer(shared_from_this());
    }
    last_ = account;
    return account;
  }

  void authorizationURL(URLCompletion completion) override {
    std::unique_lock lock(mutex_);
    auto url = url_;
    lock.unlock();
    completion(std::move(url));
  }

  // Renews by giving the account a token that is valid for an hour, or, when
  // scripted to fail, signs it out as the real layer does.
  void refreshTokens(RefreshCompletion completion) override {
    std::unique_lock lock(mutex_);
    auto account = last_.lock();
    bool refresh = outcome_ == Outcome::signIn;
    lock.unlock();
    if (account && refresh) {
      auto tokens = account->tokens();
      tokens.accessToken = "refreshed";
      tokens.expiresAt = std::chrono::system_clock::now() + std::chrono::hours(1);
      account->setTokens(tokens);
    } else if (account) {
      account->setTokens({});
      QMAccountManager::shared()->removeAccount(account);
      postAccountDidChange();
    }
    completion(refresh);
  }

  void exchangeCode(const std::string& code, bool, const std::string&) override {
    std::lock_guard lock(mutex_);
    codes_.push_back(code);
    if (outcome_ == Outcome::silent) {
      return;
    }
    if (auto account = last_.lock(); account && outcome_ == Outcome::signIn) {
      account->setIdentity("user-1", "user@example.test");
      QMAccountTokens tokens;
      tokens.accessToken = "token-for-" + code;
      account->setTokens(tokens);
      QMAccountManager::shared()->addAccount(account);
    }
    postAccountDidChange();
  }

 private:
  mutable std::mutex mutex_;
  Makes makes_ = Makes::quelmoConnectAccount;
  Outcome outcome_ = Outcome::signIn;
  std::optional<std::string> url_;
  std::vector<std::string> codes_;
  std::weak_ptr<QMAccount> last_;
};

}  // namespace vantor::account::testing
