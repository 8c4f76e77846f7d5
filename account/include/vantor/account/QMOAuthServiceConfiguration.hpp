#pragma once

#include <chrono>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "vantor/platform/ProxySettings.hpp"

namespace vantor::account {

/// Where and how `QMOAuthAccountManager` signs users in: an OAuth 2.0 /
/// OpenID Connect service given by its issuer (endpoints found through
/// discovery) or by explicit endpoints, or both (explicit endpoints win).
///
/// Endpoints, the authorization page included, must be https; plain http is
/// accepted only for loopback hosts (127.0.0.0/8, ::1, "localhost"), for
/// local development and tests. A configuration that breaks this signs
/// nobody in (`login` fails with `invalidAccount`).
struct QMOAuthServiceConfiguration {
  /// How the client proves itself at the token endpoint.
  enum class ClientAuthentication {
    /// HTTP Basic with the form-encoded client id and secret (the default of
    /// OpenID Connect).
    clientSecretBasic,
    /// `client_id` and `client_secret` in the request body.
    clientSecretPost,
    /// `client_id` only, for public clients; PKCE protects the code.
    none,
  };

  /// Display name of the service. The sign-in controller expects the
  /// redirect's path to contain it lower-cased without white space, so it
  /// goes with the registered redirect URI.
  std::string serviceName = "Quelmo Connect";

  /// OpenID Connect issuer, which ID tokens must name. Unless both the
  /// authorization and the token endpoint are given below, its
  /// "/.well-known/openid-configuration" is read once, on the first sign-in,
  /// and must name the same issuer. Without an issuer, ID tokens are not
  /// used to tell who signed in (the userinfo endpoint is).
  std::optional<std::string> issuer;
  std::optional<std::string> authorizationEndpoint;
  std::optional<std::string> tokenEndpoint;
  /// Asked for the e-mail (and `sub`) when the ID token lacks the e-mail.
  std::optional<std::string> userinfoEndpoint;

  /// Scopes to ask for.
  std::vector<std::string> scopes{"openid", "email"};
  /// Further authorization request parameters, for example
  /// {"prompt", "consent"} for services that issue refresh tokens only then.
  std::vector<std::pair<std::string, std::string>> additionalAuthorizationParameters;

  ClientAuthentication clientAuthentication = ClientAuthentication::clientSecretBasic;

  /// Turns the obfuscated client id and secret of the credentials record
  /// into clear text, at the moment they are sent. Empty means identity.
  std::function<std::string(std::string_view obfuscated)> deobfuscate;

  /// TLS trust: the system's certificate authorities, plus these (PEM).
  bool useSystemTrustStore = true;
  std::vector<std::string> additionalCertificateAuthorities;

  /// Keep tokens in the desktop's Secret Service (through libsecret) when
  /// the session bus offers one with an unlocked default keyring; otherwise,
  /// or when false, they stay in the private accounts file.
  bool useSecretService = true;

  /// Limit for each HTTP request (connect, TLS, request and response).
  std::chrono::milliseconds requestTimeout{std::chrono::seconds(15)};

  /// The HTTP proxy for these requests: by default from `https_proxy` and
  /// `no_proxy` (and `http_proxy` for loopback http endpoints);
  /// `platform::ProxySettings::none()` connects directly.
  platform::ProxySettings proxy;
};

}  // namespace vantor::account
