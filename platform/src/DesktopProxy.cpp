#include "DesktopProxy.hpp"

#include <mutex>

#ifdef VANTOR_HAVE_LIBPROXY
#include <proxy.h>
#endif

namespace vantor::platform::detail {

std::optional<std::string> desktopProxyFor(const std::string& url) {
#ifdef VANTOR_HAVE_LIBPROXY
  // One factory for the process; it is not safe to share between threads
  // at once.
  static std::mutex mutex;
  static pxProxyFactory* const factory = px_proxy_factory_new();
  std::lock_guard lock(mutex);
  if (factory == nullptr) {
    return std::nullopt;
  }
  char** proxies = px_proxy_factory_get_proxies(factory, url.c_str());
  std::optional<std::string> chosen;
  for (int i = 0; proxies != nullptr && proxies[i] != nullptr; ++i) {
    const std::string proxy = proxies[i];
    if (proxy.rfind("direct://", 0) == 0) {
      break;
    }
    if (proxy.rfind("http://", 0) == 0) {
      chosen = proxy;
      break;
    }
  }
  px_proxy_factory_free_proxies(proxies);
  return chosen;
#else
  (void)url;
  return std::nullopt;
#endif
}

}  // namespace vantor::platform::detail
