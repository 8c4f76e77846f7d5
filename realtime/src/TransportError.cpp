#include "vantor/realtime/TransportError.hpp"

namespace vantor::realtime {

TransportError TransportError::from(const boost::system::error_code& code) {
  return TransportError{code, code.message() + " (" + code.category().name() + ":" +
                                  std::to_string(code.value()) + ")"};
}

}  // namespace vantor::realtime
