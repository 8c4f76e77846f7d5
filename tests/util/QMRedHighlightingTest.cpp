#include "vantor/util/QMRedHighlighting.hpp"

#include <gtest/gtest.h>

#include "vantor/util/QMMutableAttributedString.hpp"

namespace vantor::util {
namespace {

using Attributes = QMMutableAttributedString::Attributes;
using AttributeRun = QMMutableAttributedString::Run;

// Appending shifts the appended runs and merges equal neighbours; appendString
// adds plain text whether highlighted or not.
TEST(QMRedHighlighting, AppendKeepsRunsAndAddsPlainText) {
  const Attributes red{{"foregroundColor", "red"}};
  const Attributes bold{{"font", "bold"}};
  QMMutableAttributedString text("ab", red);
  text.append(QMMutableAttributedString("cd", red));
  text.append(QMMutableAttributedString("--"));
  text.append(QMMutableAttributedString("ef", bold));
  text.append(text);
  EXPECT_EQ(text.string(), "abcd--efabcd--ef");
  EXPECT_EQ(text.runs(),
            (std::vector<AttributeRun>{{0, 4, red}, {6, 2, bold}, {8, 4, red}, {14, 2, bold}}));

  QMMutableAttributedString highlighted("Error: ", red);
  QMMutableAttributedString plain = highlighted;
  appendString(highlighted, "disk full", true);
  appendString(plain, "disk full", false);
  EXPECT_EQ(highlighted, plain);
  EXPECT_EQ(highlighted.string(), "Error: disk full");
  EXPECT_EQ(highlighted.runs(), (std::vector<AttributeRun>{{0, 7, red}}));
}

}  // namespace
}  // namespace vantor::util
