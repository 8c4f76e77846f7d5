// The replaceable process-wide account manager and factory.
#include <mutex>

#include "vantor/account/QMAccountFactory.hpp"
#include "vantor/account/QMAccountManager.hpp"
#include "vantor/account/QMOAuthAccountFactory.hpp"
#include "vantor/account/QMOAuthAccountManager.hpp"

namespace vantor::account {

namespace {

struct Shared {
  std::mutex mutex;
  std::shared_ptr<QMAccountManager> manager;
  std::shared_ptr<QMAccountFactory> factory;
};

// Never destroyed: accounts and exchanges may reach them during exit.
Shared& shared() {
  static Shared* const instances = new Shared();
  return *instances;
}

}  // namespace

std::shared_ptr<QMAccountManager> QMAccountManager::shared() {
  auto& instances = account::shared();
  std::lock_guard lock(instances.mutex);
  if (!instances.manager) {
    instances.manager = QMOAuthAccountManager::make({});
  }
  return instances.manager;
}

void QMAccountManager::setShared(std::shared_ptr<QMAccountManager> manager) {
  auto& instances = account::shared();
  std::lock_guard lock(instances.mutex);
  instances.manager = std::move(manager);
}

std::shared_ptr<QMAccountFactory> QMAccountFactory::shared() {
  auto& instances = account::shared();
  std::lock_guard lock(instances.mutex);
  if (!instances.factory) {
    instances.factory = std::make_shared<QMOAuthAccountFactory>();
  }
  return instances.factory;
}

void QMAccountFactory::setShared(std::shared_ptr<QMAccountFactory> factory) {
  auto& instances = account::shared();
  std::lock_guard lock(instances.mutex);
  instances.factory = std::move(factory);
}

}  // namespace vantor::account
