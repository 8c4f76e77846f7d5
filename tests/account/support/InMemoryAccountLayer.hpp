#pragma once

#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include <vantor/account/QMAccountFactory.hpp>
#include <vantor/account/QMAccountManager.hpp>
#include <vantor/account/QMQuelmoConnectAccount.hpp>
#include <vantor/account/QMWebServiceAuthorizer.hpp>

namespace vantor::account::testing {

// An account manager that keeps its accounts in memory only.
class InMemoryAccountManager : public QMAccountManager {
 public:
  InMemoryAccountManager() = default;

  std::vector<std::shared_ptr<QMAccount>> accounts() const override;
  void addAccount(std::shared_ptr<QMAccount> account) override;
  void removeAccount(const std::shared_ptr<QMAccount>& account) override;
  void clear();

 private:
  mutable std::mutex mutex_;
  std::vector<std::shared_ptr<QMAccount>> accounts_;
};

// An account of some other service, which the sign-in controller must not
// take for its own.
class OtherAccount : public QMAccount {
 public:
  OtherAccount() : QMAccount("00000000-0000-0000-0000-0000000000AA") {}
  std::string_view classTypeIdentifier() const override { return "com.example.accounts.Other"; }
};

// An authoriser whose code exchange does what the test scripted, the way the
// real one reports it: through the account-did-change notification.
class ScriptedAuthorizer : public QMWebServiceAuthorizer {
 public:
  enum class Outcome {
    signIn,  // give the account a token, store it, notify
    fail,    // notify without storing anything
    silent,  // do nothing
  };
  struct Exchange {
    std::string code;
    bool addToStore = false;
    std::string redirectURL;
  };

  ScriptedAuthorizer(std::shared_ptr<QMAccountManager> manager, std::weak_ptr<QMAccount> account)
      : manager_(std::move(manager)), account_(std::move(account)) {}

  std::optional<std::string> authorizationURL() override;
  void exchangeCode(const std::string& code, bool addToStore,
                    const std::string& redirectURL) override;

  void script(Outcome outcome, std::optional<std::string> url);
  std::vector<Exchange> exchanges() const;

 private:
  const std::shared_ptr<QMAccountManager> manager_;
  const std::weak_ptr<QMAccount> account_;
  mutable std::mutex mutex_;
  Outcome outcome_ = Outcome::signIn;
  std::optional<std::string> url_ = "https://accounts.example.test/authorize?client_id=notes";
  std::vector<Exchange> exchanges_;
};

// Makes what the test asks for, each new account with a ScriptedAuthorizer.
class InMemoryAccountFactory : public QMAccountFactory {
 public:
  enum class Makes { quelmoConnectAccount, otherAccount, nothing, withoutAuthorizer, withoutServiceName };

  explicit InMemoryAccountFactory(std::shared_ptr<QMAccountManager> manager)
      : manager_(std::move(manager)) {}

  std::shared_ptr<QMAccount> createAccount(std::optional<boost::uuids::uuid> identifier,
                                           std::uint32_t options,
                                           QMWebServiceProvider provider) override;

  void setMakes(Makes makes);
  // How later authorisers behave.
  void script(ScriptedAuthorizer::Outcome outcome, std::optional<std::string> url);
  // The authoriser of the last account made.
  std::shared_ptr<ScriptedAuthorizer> lastAuthorizer() const;

 private:
  const std::shared_ptr<QMAccountManager> manager_;
  mutable std::mutex mutex_;
  Makes makes_ = Makes::quelmoConnectAccount;
  ScriptedAuthorizer::Outcome outcome_ = ScriptedAuthorizer::Outcome::signIn;
  std::optional<std::string> url_ = "https://accounts.example.test/authorize?client_id=notes";
  std::shared_ptr<ScriptedAuthorizer> last_;
};

// A stored-looking account of the maker's service.
std::shared_ptr<QMQuelmoConnectAccount> makeAccount(const std::string& identifier,
                                                    const std::string& email,
                                                    std::optional<std::string> token);

// Posts the account-did-change notification, as the account layer does.
void postAccountDidChange();

}  // namespace vantor::account::testing
