#pragma once

#include <boost/system/error_code.hpp>
#include <string>

namespace vantor::realtime {

/// Why a connection failed: the underlying error code and its description.
struct TransportError {
  boost::system::error_code code;
  std::string description;

  /// An error with the code's message and category as its description.
  static TransportError from(const boost::system::error_code& code);
};

}  // namespace vantor::realtime
