#pragma once

#include <cstddef>
#include <map>
#include <string>
#include <vector>

namespace vantor::util {

/// Text with attributes (key/value pairs such as a colour) on ranges of it.
/// Positions and lengths count bytes of the UTF-8 text.
///
/// Thread safety: a plain value. Const members may be called from any number
/// of threads at once; mutation needs exclusive access.
class QMMutableAttributedString {
 public:
  using Attributes = std::map<std::string, std::string>;

  /// A range of the text that carries attributes.
  struct Run {
    std::size_t location = 0;
    std::size_t length = 0;
    Attributes attributes;

    friend bool operator==(const Run&, const Run&) = default;
  };

  QMMutableAttributedString() = default;

  /// `text` with `attributes` over all of it (none if empty).
  explicit QMMutableAttributedString(std::string text, Attributes attributes = {});

  [[nodiscard]] const std::string& string() const noexcept { return text_; }
  [[nodiscard]] std::size_t length() const noexcept { return text_.size(); }

  /// The attributed ranges in text order. They do not overlap, text outside
  /// them has no attributes, and neighbours with equal attributes are merged.
  [[nodiscard]] const std::vector<Run>& runs() const noexcept { return runs_; }

  /// The attributes at byte `index`; empty when there are none, including
  /// for an `index` past the end.
  [[nodiscard]] Attributes attributesAt(std::size_t index) const;

  /// Appends `other`'s text with its attributes (`other` may be this object).
  void append(const QMMutableAttributedString& other);

  friend bool operator==(const QMMutableAttributedString&,
                         const QMMutableAttributedString&) = default;

 private:
  std::string text_;
  std::vector<Run> runs_;
};

}  // namespace vantor::util
