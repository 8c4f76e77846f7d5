#pragma once

#include <boost/asio/io_context.hpp>
#include <boost/asio/strand.hpp>

#include "vantor/platform/DispatchQueue.hpp"

namespace vantor::platform {

struct DispatchQueue::Impl {
  boost::asio::strand<boost::asio::io_context::executor_type> strand;
};

}  // namespace vantor::platform
