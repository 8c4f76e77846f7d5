#pragma once

#include <memory>

#include <vantor/account/QMAccountFactory.hpp>
#include <vantor/account/QMOAuthAccountManager.hpp>

namespace vantor::account {

/// Makes accounts of the maker's service (`QMWebServiceProvider::quelmoConnect`)
/// with a `QMOAuthAccountManager`: the one given, or, when none is given,
/// whatever the shared account manager is at the time of the call if it is
/// one. Other providers get no account.
///
/// Thread safety: every member may be called from any thread.
class QMOAuthAccountFactory : public QMAccountFactory {
 public:
  explicit QMOAuthAccountFactory(std::shared_ptr<QMOAuthAccountManager> manager = nullptr)
      : manager_(std::move(manager)) {}

  [[nodiscard]] std::shared_ptr<QMAccount> createAccount(
      std::optional<boost::uuids::uuid> identifier, std::uint32_t options,
      QMWebServiceProvider provider) override;

 private:
  const std::shared_ptr<QMOAuthAccountManager> manager_;
};

}  // namespace vantor::account
