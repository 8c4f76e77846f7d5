#pragma once

#include <string>

namespace vantor::testing {

/// A certificate authority and a server certificate made at test time, so that
/// TLS tests never depend on files on disk or on the system trust store.
///
/// The server certificate names DNS:localhost, IP:127.0.0.1 and IP:::1, so a
/// client that trusts `caCertificatePem` and verifies the host name
/// "localhost" accepts it. All texts are PEM.
///
/// Thread safety: `generate()` may be called from any thread; the values are
/// plain strings.
struct TestCertificates {
  std::string caCertificatePem;      ///< the self-signed CA
  std::string serverCertificatePem;  ///< issued by that CA
  std::string serverPrivateKeyPem;   ///< PKCS#8 key of the server certificate

  /// What the server certificate of `generate(Variant)` gets wrong.
  enum class Variant {
    valid,        ///< nothing: as `generate()`
    expired,      ///< it expired yesterday (the CA is still valid)
    otherNames,   ///< it names only DNS:elsewhere.test, not localhost or 127.0.0.1
  };

  /// Makes a fresh CA and server certificate with EC P-256 keys, valid from
  /// one hour ago for one day. Throws `std::runtime_error` with OpenSSL's
  /// reason when OpenSSL fails (it does not in a sane environment).
  static TestCertificates generate();
  /// The same with a server certificate that is wrong in one way, for tests
  /// of what a client refuses.
  static TestCertificates generate(Variant variant);
};

}  // namespace vantor::testing
