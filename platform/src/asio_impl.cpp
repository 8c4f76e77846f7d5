// The one translation unit that compiles Asio and its TLS layer.
#include <boost/asio/impl/src.hpp>
#include <boost/asio/ssl/impl/src.hpp>
