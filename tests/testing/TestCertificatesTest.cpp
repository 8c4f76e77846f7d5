#include "vantor/testing/TestCertificates.hpp"

#include <gtest/gtest.h>
#include <openssl/pem.h>
#include <openssl/x509.h>
#include <openssl/x509_vfy.h>
#include <openssl/x509v3.h>

#include <memory>
#include <string>

namespace vantor::testing {
namespace {

template <class T, void (*Free)(T*)>
struct Freer {
  void operator()(T* p) const noexcept { Free(p); }
};
using CertPtr = std::unique_ptr<X509, Freer<X509, X509_free>>;
using KeyPtr = std::unique_ptr<EVP_PKEY, Freer<EVP_PKEY, EVP_PKEY_free>>;

template <class Read>
auto fromPem(const std::string& pem, Read read) {
  std::unique_ptr<BIO, Freer<BIO, BIO_free_all>> bio(
      BIO_new_mem_buf(pem.data(), static_cast<int>(pem.size())));
  return read(bio.get());
}

CertPtr certificate(const std::string& pem) {
  return CertPtr(
      fromPem(pem, [](BIO* b) { return PEM_read_bio_X509(b, nullptr, nullptr, nullptr); }));
}

// Whether `leaf` chains up to `ca` under OpenSSL's standard checks.
bool verifies(const std::string& leafPem, const std::string& caPem) {
  auto leaf = certificate(leafPem);
  auto ca = certificate(caPem);
  std::unique_ptr<X509_STORE, Freer<X509_STORE, X509_STORE_free>> store(X509_STORE_new());
  X509_STORE_add_cert(store.get(), ca.get());
  std::unique_ptr<X509_STORE_CTX, Freer<X509_STORE_CTX, X509_STORE_CTX_free>> context(
      X509_STORE_CTX_new());
  X509_STORE_CTX_init(context.get(), store.get(), leaf.get(), nullptr);
  X509_STORE_CTX_set_purpose(context.get(), X509_PURPOSE_SSL_SERVER);
  return X509_verify_cert(context.get()) == 1;
}

TEST(TestCertificates, ServerCertificateChainsToItsOwnCaOnly) {
  auto first = TestCertificates::generate();
  auto second = TestCertificates::generate();
  EXPECT_TRUE(verifies(first.serverCertificatePem, first.caCertificatePem));
  EXPECT_FALSE(verifies(first.serverCertificatePem, second.caCertificatePem));
}

TEST(TestCertificates, ServerCertificateNamesTheLoopbackHostsAndMatchesItsKey) {
  auto certs = TestCertificates::generate();
  auto server = certificate(certs.serverCertificatePem);
  EXPECT_EQ(X509_check_host(server.get(), "localhost", 0, 0, nullptr), 1);
  EXPECT_EQ(X509_check_host(server.get(), "example.com", 0, 0, nullptr), 0);
  EXPECT_EQ(X509_check_ip_asc(server.get(), "127.0.0.1", 0), 1);
  EXPECT_EQ(X509_check_ip_asc(server.get(), "::1", 0), 1);
  KeyPtr key(fromPem(certs.serverPrivateKeyPem,
                     [](BIO* b) { return PEM_read_bio_PrivateKey(b, nullptr, nullptr, nullptr); }));
  ASSERT_TRUE(key);
  EXPECT_EQ(X509_check_private_key(server.get(), key.get()), 1);
  EXPECT_EQ(EVP_PKEY_get_base_id(key.get()), EVP_PKEY_EC);
}

}  // namespace
}  // namespace vantor::testing
