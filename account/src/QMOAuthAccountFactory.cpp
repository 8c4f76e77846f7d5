#include "vantor/account/QMOAuthAccountFactory.hpp"

namespace vantor::account {

std::shared_ptr<QMAccount> QMOAuthAccountFactory::createAccount(
    std::optional<boost::uuids::uuid> identifier, std::uint32_t /*options*/,
    QMWebServiceProvider provider) {
  if (provider != QMWebServiceProvider::quelmoConnect) {
    return nullptr;
  }
  auto manager = manager_ ? manager_
                          : std::dynamic_pointer_cast<QMOAuthAccountManager>(QMAccountManager::shared());
  return manager ? manager->createAccount(identifier) : nullptr;
}

}  // namespace vantor::account
