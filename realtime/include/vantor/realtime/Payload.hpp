#pragma once

#include <boost/json/object.hpp>

namespace vantor::realtime {

/// The body of every frame, reply and connection parameter set: a JSON
/// object from string keys to JSON values. Keys keep insertion order.
using Payload = boost::json::object;

}  // namespace vantor::realtime
