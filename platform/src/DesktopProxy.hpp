#pragma once

#include <optional>
#include <string>

namespace vantor::platform::detail {

// The desktop's proxy for `url` (http or https) through libproxy: an HTTP
// proxy's URL, or none to go direct (also for proxies of other kinds, and
// without libproxy). Blocks while the desktop answers (a PAC file or WPAD
// may take the network): call it off the loop.
std::optional<std::string> desktopProxyFor(const std::string& url);

}  // namespace vantor::platform::detail
