#include "vantor/util/QMRedHighlighting.hpp"

#include <gtest/gtest.h>

#include "vantor/util/QMMutableAttributedString.hpp"

namespace vantor::util {
namespace {

using Attributes = QMMutableAttributedString::Attributes;
using AttributeRun = QMMutableAttributedString::Run;

const Attributes red{{"foregroundColor", "red"}};

TEST(QMRedHighlighting, AppendsThePlainTextWhetherHighlightedOrNot) {
  QMMutableAttributedString highlighted("Error: ", red);
  QMMutableAttributedString plain = highlighted;

  appendString(highlighted, "disk full", true);
  appendString(plain, "disk full", false);

  EXPECT_EQ(highlighted, plain);
  EXPECT_EQ(highlighted.string(), "Error: disk full");
  // Only the receiver's own run carries attributes; the appended text none.
  EXPECT_EQ(highlighted.runs(), (std::vector<AttributeRun>{{0, 7, red}}));
  EXPECT_TRUE(highlighted.attributesAt(7).empty());

  QMMutableAttributedString empty;
  appendString(empty, "x", true);
  EXPECT_TRUE(empty.runs().empty());
}

TEST(QMMutableAttributedString, AppendShiftsRunsAndMergesEqualNeighbours) {
  const Attributes bold{{"font", "bold"}};
  QMMutableAttributedString text("ab", red);
  text.append(QMMutableAttributedString("cd", red));
  text.append(QMMutableAttributedString("--"));
  text.append(QMMutableAttributedString("ef", bold));
  EXPECT_EQ(text.runs(), (std::vector<AttributeRun>{{0, 4, red}, {6, 2, bold}}));

  text.append(text);
  EXPECT_EQ(text.string(), "abcd--efabcd--ef");
  EXPECT_EQ(text.length(), 16U);
  EXPECT_EQ(text.runs(), (std::vector<AttributeRun>{{0, 4, red}, {6, 2, bold}, {8, 4, red}, {14, 2, bold}}));
  EXPECT_EQ(text.attributesAt(15), bold);
  EXPECT_TRUE(text.attributesAt(16).empty());
}

}  // namespace
}  // namespace vantor::util
