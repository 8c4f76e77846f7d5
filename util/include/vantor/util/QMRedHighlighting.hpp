#pragma once

#include <string_view>

#include <vantor/util/QMMutableAttributedString.hpp>

namespace vantor::util {

/// Appends `text` to `receiver` as plain text, without attributes.
///
/// `highlight` is deliberately ignored: highlighted and plain text are
/// appended alike, with no colour or other attribute, so callers that ask
/// for highlighting get the same output as those that do not.
///
/// Thread safety: as for any mutation of `receiver`.
void appendString(QMMutableAttributedString& receiver, std::string_view text, bool highlight);

}  // namespace vantor::util
