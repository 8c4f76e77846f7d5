#pragma once

#include <atomic>
#include <memory>
#include <vector>

#include <vantor/account/QMAccount.hpp>
#include <vantor/account/QMAccountAppIdentifyingProtocol.hpp>
#include <vantor/account/QMAccountWebServiceCredentialsProviderProtocol.hpp>

namespace vantor::account {

/// The store of the application's signed-in accounts, and the place where
/// the application tells the account layer its client credentials and its
/// identity (through two delegates).
///
/// The delegates are not owned: each must outlive its use by the manager,
/// or be replaced first (the sign-in controller, which sets itself, lives
/// for the process).
///
/// Thread safety: every member may be called from any thread.
class QMAccountManager {
 public:
  /// The process-wide manager. Unless the host installed another (for
  /// example with `QMOAuthAccountManager::install`), it is a
  /// `QMOAuthAccountManager` with an empty service configuration, which
  /// keeps accounts but cannot sign anyone in.
  [[nodiscard]] static std::shared_ptr<QMAccountManager> shared();

  /// Replaces the process-wide manager; null restores the default. Set it
  /// before the sign-in controller is made: the controller registers its
  /// delegates with the manager current at that time.
  static void setShared(std::shared_ptr<QMAccountManager> manager);

  QMAccountManager(const QMAccountManager&) = delete;
  QMAccountManager& operator=(const QMAccountManager&) = delete;
  virtual ~QMAccountManager() = default;

  void setDelegateOfWebServiceRequirements(
      QMAccountWebServiceCredentialsProviderProtocol* delegate) noexcept {
    credentialsDelegate_.store(delegate);
  }
  [[nodiscard]] QMAccountWebServiceCredentialsProviderProtocol* delegateOfWebServiceRequirements()
      const noexcept {
    return credentialsDelegate_.load();
  }

  void setAppIdentifyingDelegate(QMAccountAppIdentifyingProtocol* delegate) noexcept {
    appDelegate_.store(delegate);
  }
  [[nodiscard]] QMAccountAppIdentifyingProtocol* appIdentifyingDelegate() const noexcept {
    return appDelegate_.load();
  }

  /// The stored accounts, in the order they were added.
  [[nodiscard]] virtual std::vector<std::shared_ptr<QMAccount>> accounts() const = 0;

  /// Adds `account`, or replaces the stored account with the same uuid.
  virtual void addAccount(std::shared_ptr<QMAccount> account) = 0;

  /// Removes the account with `account`'s uuid and forgets its tokens. An
  /// account that is not stored (or null) is ignored.
  virtual void removeAccount(const std::shared_ptr<QMAccount>& account) = 0;

 protected:
  QMAccountManager() = default;

 private:
  std::atomic<QMAccountWebServiceCredentialsProviderProtocol*> credentialsDelegate_{nullptr};
  std::atomic<QMAccountAppIdentifyingProtocol*> appDelegate_{nullptr};
};

}  // namespace vantor::account
