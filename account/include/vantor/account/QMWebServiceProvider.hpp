#pragma once

namespace vantor::account {

/// The kinds of web service an account can belong to.
enum class QMWebServiceProvider {
  /// A generic OAuth 2.0 service.
  oauth2 = 0,
  /// The maker's own account service.
  quelmoConnect = 1,
};

}  // namespace vantor::account
