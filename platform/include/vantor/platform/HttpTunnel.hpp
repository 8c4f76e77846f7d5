#pragma once

#include <boost/asio/io_context.hpp>
#include <boost/beast/core/tcp_stream.hpp>
#include <functional>
#include <string>

#include "vantor/platform/HttpProxy.hpp"
#include "vantor/platform/NetworkTarget.hpp"

namespace vantor::platform {

/// A TCP stream whose operations carry an io_context's own executor instead
/// of a type-erased one, which makes each operation cheaper; for streams that
/// only ever run on one io_context.
using LoopTcpStream =
    boost::beast::basic_stream<boost::asio::ip::tcp, boost::asio::io_context::executor_type>;

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
void openHttpTunnel(LoopTcpStream& stream, const HttpProxy& proxy, const NetworkTarget& target,
                    TunnelCompletion completion);

}  // namespace vantor::platform
