#include "vantor/platform/TlsClient.hpp"

#include <boost/asio/buffer.hpp>

namespace vantor::platform {

std::shared_ptr<boost::asio::ssl::context> makeTlsClientContext(
    bool useSystemTrustStore, const std::vector<std::string>& additionalCertificateAuthorities,
    boost::system::error_code& error) {
  namespace ssl = boost::asio::ssl;
  auto context = std::make_shared<ssl::context>(ssl::context::tls_client);
  SSL_CTX_set_min_proto_version(context->native_handle(), TLS1_2_VERSION);
  if (useSystemTrustStore) {
    context->set_default_verify_paths(error);
    if (error) {
      return nullptr;
    }
  }
  for (const auto& pem : additionalCertificateAuthorities) {
    context->add_certificate_authority(boost::asio::buffer(pem), error);
    if (error) {
      return nullptr;
    }
  }
  context->set_verify_mode(ssl::verify_peer);
  return context;
}

}  // namespace vantor::platform
