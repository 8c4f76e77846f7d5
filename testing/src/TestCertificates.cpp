#include "vantor/testing/TestCertificates.hpp"

#include <openssl/bio.h>
#include <openssl/bn.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/rand.h>
#include <openssl/x509.h>
#include <openssl/x509v3.h>

#include <memory>
#include <stdexcept>
#include <utility>
#include <vector>

namespace vantor::testing {
namespace {

template <class T, void (*Free)(T*)>
struct Freer {
  void operator()(T* p) const noexcept { Free(p); }
};
using KeyPtr = std::unique_ptr<EVP_PKEY, Freer<EVP_PKEY, EVP_PKEY_free>>;
using CertPtr = std::unique_ptr<X509, Freer<X509, X509_free>>;
using BioPtr = std::unique_ptr<BIO, Freer<BIO, BIO_free_all>>;
using BignumPtr = std::unique_ptr<BIGNUM, Freer<BIGNUM, BN_free>>;
using ExtensionPtr = std::unique_ptr<X509_EXTENSION, Freer<X509_EXTENSION, X509_EXTENSION_free>>;

[[noreturn]] void fail(const char* what) {
  char reason[256] = "no OpenSSL error queued";
  if (auto code = ERR_get_error(); code != 0) {
    ERR_error_string_n(code, reason, sizeof reason);
  }
  ERR_clear_error();
  throw std::runtime_error(std::string("TestCertificates: ") + what + ": " + reason);
}

void check(int result, const char* what) {
  if (result <= 0) {
    fail(what);
  }
}

KeyPtr makeKey() {
  KeyPtr key(EVP_PKEY_Q_keygen(nullptr, nullptr, "EC", "P-256"));
  if (!key) {
    fail("EC key generation");
  }
  return key;
}

void setRandomSerial(X509* cert) {
  unsigned char bytes[16];
  check(RAND_bytes(bytes, sizeof bytes), "serial number");
  bytes[0] &= 0x7f;  // keep it positive, as RFC 5280 asks
  BignumPtr serial(BN_bin2bn(bytes, sizeof bytes, nullptr));
  if (!serial || BN_to_ASN1_INTEGER(serial.get(), X509_get_serialNumber(cert)) == nullptr) {
    fail("serial number");
  }
}

void setCommonName(X509_NAME* name, const char* commonName) {
  check(
      X509_NAME_add_entry_by_txt(name, "O", MBSTRING_ASC,
                                 reinterpret_cast<const unsigned char*>("Vantor tests"), -1, -1, 0),
      "subject organisation");
  check(X509_NAME_add_entry_by_txt(name, "CN", MBSTRING_ASC,
                                   reinterpret_cast<const unsigned char*>(commonName), -1, -1, 0),
        "subject common name");
}

// Builds and signs one certificate. With no issuer the certificate signs itself.
CertPtr makeCertificate(EVP_PKEY* key, const char* commonName, X509* issuer, EVP_PKEY* issuerKey,
                        const std::vector<std::pair<int, const char*>>& extensions,
                        long notBeforeSeconds = -60L * 60, long notAfterSeconds = 24L * 60 * 60) {
  CertPtr cert(X509_new());
  if (!cert) {
    fail("X509_new");
  }
  check(X509_set_version(cert.get(), X509_VERSION_3), "version");
  setRandomSerial(cert.get());
  if (X509_gmtime_adj(X509_getm_notBefore(cert.get()), notBeforeSeconds) == nullptr ||
      X509_gmtime_adj(X509_getm_notAfter(cert.get()), notAfterSeconds) == nullptr) {
    fail("validity");
  }
  setCommonName(X509_get_subject_name(cert.get()), commonName);
  X509* signer = issuer != nullptr ? issuer : cert.get();
  check(X509_set_issuer_name(cert.get(), X509_get_subject_name(signer)), "issuer name");
  check(X509_set_pubkey(cert.get(), key), "public key");

  X509V3_CTX context;
  X509V3_set_ctx_nodb(&context);
  X509V3_set_ctx(&context, signer, cert.get(), nullptr, nullptr, 0);
  for (const auto& [nid, value] : extensions) {
    ExtensionPtr extension(X509V3_EXT_conf_nid(nullptr, &context, nid, value));
    if (!extension) {
      fail(value);
    }
    check(X509_add_ext(cert.get(), extension.get(), -1), value);
  }
  check(X509_sign(cert.get(), issuerKey, EVP_sha256()), "signature");
  return cert;
}

template <class Write>
std::string toPem(Write write, const char* what) {
  BioPtr bio(BIO_new(BIO_s_mem()));
  if (!bio) {
    fail(what);
  }
  check(write(bio.get()), what);
  char* data = nullptr;
  auto size = BIO_get_mem_data(bio.get(), &data);
  return std::string(data, static_cast<std::size_t>(size));
}

}  // namespace

TestCertificates TestCertificates::generate() { return generate(Variant::valid); }

TestCertificates TestCertificates::generate(Variant variant) {
  constexpr long day = 24L * 60 * 60;
  const bool expired = variant == Variant::expired;
  const char* names = variant == Variant::otherNames ? "DNS:elsewhere.test"
                                                     : "DNS:localhost,IP:127.0.0.1,IP:::1";
  auto caKey = makeKey();
  auto ca = makeCertificate(caKey.get(), "Vantor Test CA", nullptr, caKey.get(),
                            {{NID_basic_constraints, "critical,CA:TRUE"},
                             {NID_key_usage, "critical,keyCertSign,cRLSign"},
                             {NID_subject_key_identifier, "hash"}});
  auto serverKey = makeKey();
  const char* commonName = variant == Variant::otherNames ? "elsewhere.test" : "localhost";
  auto server = makeCertificate(serverKey.get(), commonName, ca.get(), caKey.get(),
                                {{NID_basic_constraints, "critical,CA:FALSE"},
                                 {NID_key_usage, "critical,digitalSignature"},
                                 {NID_ext_key_usage, "serverAuth"},
                                 {NID_subject_alt_name, names},
                                 {NID_authority_key_identifier, "keyid:always"}},
                                expired ? -2 * day : -60L * 60, expired ? -day : day);

  TestCertificates result;
  result.caCertificatePem =
      toPem([&](BIO* bio) { return PEM_write_bio_X509(bio, ca.get()); }, "CA certificate PEM");
  result.serverCertificatePem = toPem(
      [&](BIO* bio) { return PEM_write_bio_X509(bio, server.get()); }, "server certificate PEM");
  result.serverPrivateKeyPem = toPem(
      [&](BIO* bio) {
        return PEM_write_bio_PrivateKey(bio, serverKey.get(), nullptr, nullptr, 0, nullptr,
                                        nullptr);
      },
      "server key PEM");
  return result;
}

}  // namespace vantor::testing
