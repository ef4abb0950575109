// SPDX-License-Identifier: Apache-2.0
#include "statsubs/support/record.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>

namespace statsubs::support {
namespace {

TEST(Record, PutsOneBlankBeforeEveryItem) {
  const double values[] = {1.0, 0.1, -1e-300};
  const std::string line =
      record().text("atb=").values(vector_view<const double>(values, 3)).value(7).line();
  EXPECT_EQ(line, " atb= 1 0.1 -1e-300 7");
  EXPECT_EQ(record().line(), "");
}

TEST(Record, RealsReadBackToTheSameDouble) {
  for (const double value : {1.0 / 3.0, 4.9e-324, 1.7976931348623157e308, 123456789.125, -0.0})
    EXPECT_EQ(std::strtod(shortest(value).c_str(), nullptr), value);
}

TEST(Record, FixedLayouts) {
  EXPECT_EQ(exponent_field(1.0, 13, 6), " 0.100000E+01");
  EXPECT_EQ(exponent_field(-123.456, 16, 4), "     -0.1235E+03");
  EXPECT_EQ(exponent_field(0.0, 16, 4), "      0.0000E+00");
  EXPECT_EQ(exponent_field(9.99996, 16, 4), "      0.1000E+02");
  EXPECT_EQ(exponent_field(1e-101, 16, 4), "      0.1000-100");
  EXPECT_EQ(exponent_field(-1e200, 16, 4), "     -0.1000+201");
  EXPECT_EQ(exponent_field(-1.0, 13, 6), "-0.100000E+01");
  EXPECT_EQ(exponent_field(-1.0, 12, 6), "-.100000E+01");
  EXPECT_EQ(exponent_field(-1.0, 11, 6), "***********");
  EXPECT_EQ(exponent_field(std::numeric_limits<double>::infinity(), 13, 6), "     Infinity");
  EXPECT_EQ(exponent_field(std::nan(""), 13, 6), "          NaN");
  EXPECT_EQ(integer_field(42, 5), "   42");
  EXPECT_EQ(integer_field(123456, 5), "*****");
}

TEST(Record, TrimsBlankPaddedNames) {
  EXPECT_EQ(trimmed("CL   "), "CL");
  EXPECT_EQ(trimmed("    "), "");
}

}  // namespace
}  // namespace statsubs::support
