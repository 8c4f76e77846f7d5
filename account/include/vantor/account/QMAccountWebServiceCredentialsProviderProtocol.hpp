#pragma once

#include <vector>

#include <vantor/account/QMWebServiceClientCredentials.hpp>

namespace vantor::account {

/// Supplies the client credentials with which the account layer talks to web
/// services (the account manager's `delegateOfWebServiceRequirements`).
///
/// Thread safety: implementations answer from any thread.
class QMAccountWebServiceCredentialsProviderProtocol {
 public:
  [[nodiscard]] virtual std::vector<QMWebServiceClientCredentials> webServiceClientCredentials()
      const = 0;

 protected:
  ~QMAccountWebServiceCredentialsProviderProtocol() = default;
};

}  // namespace vantor::account
