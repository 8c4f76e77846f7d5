#include "vantor/platform/ProxySettings.hpp"

#include <boost/asio/executor_work_guard.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/post.hpp>
#include <thread>

#include "DesktopProxy.hpp"

#include <algorithm>
#include <cctype>
#include <cstdlib>

namespace vantor::platform {

namespace {

std::string_view trimmed(std::string_view text) {
  while (!text.empty() && std::isspace(static_cast<unsigned char>(text.front())) != 0) {
    text.remove_prefix(1);
  }
  while (!text.empty() && std::isspace(static_cast<unsigned char>(text.back())) != 0) {
    text.remove_suffix(1);
  }
  return text;
}

bool equalIgnoringCase(std::string_view a, std::string_view b) {
  return a.size() == b.size() && std::equal(a.begin(), a.end(), b.begin(), [](char x, char y) {
           return std::tolower(static_cast<unsigned char>(x)) == std::tolower(static_cast<unsigned char>(y));
         });
}

// The value of the lower-case variable, else of the upper-case one; empty
// values count as unset.
std::string variable(const ProxySettings::Environment& environment, const std::string& lowerCase) {
  std::string upperCase;
  for (char c : lowerCase) {
    upperCase += static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
  }
  for (const auto& name : {lowerCase, upperCase}) {
    std::optional<std::string> value;
    if (environment) {
      value = environment(name);
    } else if (const char* text = std::getenv(name.c_str())) {
      value = text;
    }
    if (value && !trimmed(*value).empty()) {
      return std::string(trimmed(*value));
    }
  }
  return {};
}

}  // namespace

ProxySettings ProxySettings::fromEnvironment(Environment environment) {
  ProxySettings settings;
  settings.environment_ = std::move(environment);
  return settings;
}

ProxySettings ProxySettings::none() {
  ProxySettings settings;
  settings.mode_ = Mode::none;
  return settings;
}

ProxySettings ProxySettings::explicitProxy(std::string url, std::string noProxy) {
  ProxySettings settings;
  settings.mode_ = Mode::explicitProxy;
  settings.url_ = std::move(url);
  settings.noProxy_ = std::move(noProxy);
  return settings;
}

boost::system::result<std::optional<HttpProxy>> ProxySettings::proxyFor(const NetworkTarget& target) const {
  std::string url;
  std::string noProxy;
  switch (mode_) {
    case Mode::none:
      return std::optional<HttpProxy>();
    case Mode::explicitProxy:
      url = url_;
      noProxy = noProxy_;
      break;
    case Mode::fromEnvironment:
      url = variable(environment_, target.secure ? "https_proxy" : "http_proxy");
      if (url.empty()) {
        return std::optional<HttpProxy>();
      }
      noProxy = variable(environment_, "no_proxy");
      break;
  }
  if (exempts(noProxy, target.host, target.port)) {
    return std::optional<HttpProxy>();
  }
  auto proxy = HttpProxy::parse(url);
  if (!proxy) {
    return proxy.error();
  }
  return std::optional<HttpProxy>(std::move(*proxy));
}

bool ProxySettings::exempts(std::string_view list, std::string_view host, std::string_view port) {
  if (!host.empty() && host.back() == '.') {
    host.remove_suffix(1);  // "example.com." is "example.com"
  }
  while (!list.empty()) {
    const auto comma = list.find(',');
    auto entry = trimmed(list.substr(0, comma));
    list = comma == std::string_view::npos ? std::string_view() : list.substr(comma + 1);
    if (entry == "*") {
      return true;
    }
    // "host:port", "[v6]:port" and "[v6]"; an IPv6 address has several colons.
    std::string_view entryPort;
    if (!entry.empty() && entry.front() == '[') {
      const auto close = entry.find(']');
      if (close == std::string_view::npos) {
        continue;
      }
      if (close + 1 < entry.size() && entry[close + 1] == ':') {
        entryPort = entry.substr(close + 2);
      }
      entry = entry.substr(1, close - 1);
    } else if (const auto colon = entry.find(':');
               colon != std::string_view::npos && entry.find(':', colon + 1) == std::string_view::npos) {
      entryPort = entry.substr(colon + 1);
      entry = entry.substr(0, colon);
    }
    if (!entryPort.empty() && entryPort != port) {
      continue;
    }
    while (!entry.empty() && entry.front() == '.') {
      entry.remove_prefix(1);
    }
    if (!entry.empty() && entry.back() == '.') {
      entry.remove_suffix(1);
    }
    if (entry.empty()) {
      continue;
    }
    if (equalIgnoringCase(host, entry)) {
      return true;
    }
    if (host.size() > entry.size() && host[host.size() - entry.size() - 1] == '.' &&
        equalIgnoringCase(host.substr(host.size() - entry.size()), entry)) {
      return true;
    }
  }
  return false;
}

bool ProxySettings::asksDesktop() const {
#ifdef VANTOR_HAVE_LIBPROXY
  return mode_ == Mode::fromEnvironment && variable(environment_, "http_proxy").empty() &&
         variable(environment_, "https_proxy").empty() && variable(environment_, "no_proxy").empty();
#else
  return false;
#endif
}

void ProxySettings::resolve(const NetworkTarget& target, boost::asio::io_context& context, Resolved done) const {
  if (!asksDesktop()) {
    return done(proxyFor(target));
  }
  // libproxy knows http and https: ws and wss go as them.
  const std::string url = std::string(target.secure ? "https://" : "http://") + target.host + ":" + target.port + "/";
  std::thread([url, work = boost::asio::make_work_guard(context), done = std::move(done)]() mutable {
    auto found = detail::desktopProxyFor(url);
    boost::asio::post(work.get_executor(), [found = std::move(found), done = std::move(done)] {
      if (!found) {
        return done(std::optional<HttpProxy>());
      }
      auto proxy = HttpProxy::parse(*found);
      if (!proxy) {
        return done(proxy.error());
      }
      done(std::optional<HttpProxy>(std::move(*proxy)));
    });
  }).detach();
}

}  // namespace vantor::platform
