#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "vantor/realtime/Payload.hpp"

namespace vantor::realtime::detail {

/// The text `Defaults::encode` gives for the frame
/// [joinRef, ref, topic, event, payload] (absent references as null), with
/// the same checks, written straight from the parts: no frame array is
/// built and the payload is not copied.
std::string encodeFrame(const std::optional<std::string>& joinRef,
                        const std::optional<std::string>& ref, std::string_view topic,
                        std::string_view event, const Payload& payload);

}  // namespace vantor::realtime::detail
