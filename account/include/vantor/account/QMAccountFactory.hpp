#pragma once

#include <cstdint>
#include <memory>
#include <optional>

#include <boost/uuid/uuid.hpp>

#include <vantor/account/QMAccount.hpp>
#include <vantor/account/QMWebServiceProvider.hpp>

namespace vantor::account {

/// Makes new accounts, ready to sign in but not yet in any store.
///
/// Thread safety: every member may be called from any thread.
class QMAccountFactory {
 public:
  /// The process-wide factory. Unless the host installed another, it makes
  /// accounts with the process-wide account manager when that is a
  /// `QMOAuthAccountManager`, and none otherwise.
  [[nodiscard]] static std::shared_ptr<QMAccountFactory> shared();

  /// Replaces the process-wide factory; null restores the default.
  static void setShared(std::shared_ptr<QMAccountFactory> factory);

  QMAccountFactory(const QMAccountFactory&) = delete;
  QMAccountFactory& operator=(const QMAccountFactory&) = delete;
  virtual ~QMAccountFactory() = default;

  /// A new account of `provider`'s account class, under `identifier` or a
  /// fresh one when unset. `options` is reserved and 0. None when no account
  /// can be made for `provider`.
  [[nodiscard]] virtual std::shared_ptr<QMAccount> createAccount(
      std::optional<boost::uuids::uuid> identifier, std::uint32_t options,
      QMWebServiceProvider provider) = 0;

 protected:
  QMAccountFactory() = default;
};

}  // namespace vantor::account
