#pragma once

#include <boost/beast/core/tcp_stream.hpp>
#include <functional>
#include <string>

#include "vantor/platform/HttpProxy.hpp"
#include "vantor/platform/NetworkTarget.hpp"

namespace vantor::platform {

/// How a tunnel opening ended: no error when the tunnel is open, otherwise
/// the error and a description for people (with the proxy's status, if any).
using TunnelCompletion = std::function<void(boost::system::error_code error, std::string description)>;

/// Asks `proxy`, to which `stream` is connected, for a tunnel to `target`
/// ("CONNECT host:port"), with the proxy's credentials if it has any. Once
/// the proxy has agreed, `stream` carries the bytes of the connection to
/// `target`: the proxy's answer is consumed to its last byte and no further.
/// Any status other than 2xx fails with ProxyError::connectRefused.
///
/// Runs on the stream's executor and sets no time limit of its own: the
/// caller bounds it, for example by closing the socket at its deadline.
/// `completion` runs once; `stream` must outlive the operation.
void openHttpTunnel(boost::beast::tcp_stream& stream, const HttpProxy& proxy, const NetworkTarget& target,
                    TunnelCompletion completion);

}  // namespace vantor::platform
