#include "vantor/account/QMAccount.hpp"

namespace vantor::account {

QMAccount::QMAccount(std::string uuid) : uuid_(std::move(uuid)) {}

std::optional<std::string> QMAccount::serviceName() const {
  std::lock_guard lock(mutex_);
  return serviceName_;
}

std::shared_ptr<QMWebServiceAuthorizer> QMAccount::webServiceAuthorizer() const {
  std::lock_guard lock(mutex_);
  return authorizer_;
}

std::optional<std::string> QMAccount::identifier() const {
  std::lock_guard lock(mutex_);
  return identifier_;
}

std::optional<std::string> QMAccount::email() const {
  std::lock_guard lock(mutex_);
  return email_;
}

std::optional<std::string> QMAccount::token() const {
  std::lock_guard lock(mutex_);
  return tokens_.accessToken;
}

std::optional<std::string> QMAccount::refreshToken() const {
  std::lock_guard lock(mutex_);
  return tokens_.refreshToken;
}

QMAccountTokens QMAccount::tokens() const {
  std::lock_guard lock(mutex_);
  return tokens_;
}

void QMAccount::setServiceName(std::optional<std::string> serviceName) {
  std::lock_guard lock(mutex_);
  serviceName_ = std::move(serviceName);
}

void QMAccount::setWebServiceAuthorizer(std::shared_ptr<QMWebServiceAuthorizer> authorizer) {
  std::lock_guard lock(mutex_);
  authorizer_ = std::move(authorizer);
}

void QMAccount::setIdentity(std::optional<std::string> identifier, std::optional<std::string> email) {
  std::lock_guard lock(mutex_);
  identifier_ = std::move(identifier);
  email_ = std::move(email);
}

void QMAccount::setTokens(QMAccountTokens tokens) {
  std::lock_guard lock(mutex_);
  tokens_ = std::move(tokens);
}

}  // namespace vantor::account
