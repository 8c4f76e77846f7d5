#include "vantor/util/QMMutableAttributedString.hpp"

#include <utility>

namespace vantor::util {

QMMutableAttributedString::QMMutableAttributedString(std::string text, Attributes attributes)
    : text_(std::move(text)) {
  if (!text_.empty() && !attributes.empty()) {
    runs_.push_back(Run{0, text_.size(), std::move(attributes)});
  }
}

QMMutableAttributedString::Attributes QMMutableAttributedString::attributesAt(
    std::size_t index) const {
  for (const auto& run : runs_) {
    if (index >= run.location && index < run.location + run.length) {
      return run.attributes;
    }
  }
  return {};
}

void QMMutableAttributedString::append(const QMMutableAttributedString& other) {
  // Copy the other side's runs first: `other` may be this object.
  const std::vector<Run> appended = other.runs_;
  const std::size_t offset = text_.size();
  text_.append(other.text_);
  for (const auto& run : appended) {
    const std::size_t location = offset + run.location;
    if (!runs_.empty()) {
      Run& last = runs_.back();
      if (last.location + last.length == location && last.attributes == run.attributes) {
        last.length += run.length;
        continue;
      }
    }
    runs_.push_back(Run{location, run.length, run.attributes});
  }
}

}  // namespace vantor::util
