#pragma once

#include <optional>
#include <string>
#include <typeindex>

#include <vantor/account/QMWebServiceProvider.hpp>

namespace vantor::account {

/// How a host application is registered with a web service: its OAuth
/// client, its redirect, and the account class that the service's accounts
/// have.
///
/// The client identifier and secret are kept in the obfuscated form the host
/// supplied; only the account layer's de-obfuscation step (see
/// QMOAuthServiceConfiguration) turns them into clear text, at the moment of
/// use.
///
/// Thread safety: a plain value.
class QMWebServiceClientCredentials {
 public:
  QMWebServiceClientCredentials(std::string obfuscatedClientId, std::string obfuscatedClientSecret,
                                std::string redirectURI,
                                std::optional<std::string> redirectURIState,
                                QMWebServiceProvider serviceProvider,
                                std::string serviceProviderClassTypeIdentifier,
                                std::type_index serviceProviderClassType)
      : obfuscatedClientId(std::move(obfuscatedClientId)),
        obfuscatedClientSecret(std::move(obfuscatedClientSecret)),
        redirectURI(std::move(redirectURI)),
        redirectURIState(std::move(redirectURIState)),
        serviceProvider(serviceProvider),
        serviceProviderClassTypeIdentifier(std::move(serviceProviderClassTypeIdentifier)),
        serviceProviderClassType(serviceProviderClassType) {}

  std::string obfuscatedClientId;
  std::string obfuscatedClientSecret;
  std::string redirectURI;
  /// A fixed `state` to send; when unset, each sign-in sends a random one.
  std::optional<std::string> redirectURIState;
  QMWebServiceProvider serviceProvider;
  std::string serviceProviderClassTypeIdentifier;
  std::type_index serviceProviderClassType;

  friend bool operator==(const QMWebServiceClientCredentials&,
                         const QMWebServiceClientCredentials&) = default;
};

}  // namespace vantor::account
