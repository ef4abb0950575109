// SPDX-License-Identifier: Apache-2.0
#include <gtest/gtest.h>

#include <algorithm>
#include <cstddef>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "statsubs/sequences/bdsobl.h"
#include "statsubs/sequences/sobol.h"

namespace statsubs {
namespace {

namespace bd = statsubs::bdsobl;

// Coordinates of dimensions 1, 2 and ndim.
std::vector<int> last_point() {
  return {bd::lastq(1), bd::lastq(2), bd::lastq(bd::s)};
}

// Over every direction number in use, column after column.
unsigned checksum() {
  unsigned total = 0;
  for (int j = 1; j <= bd::maxcol; ++j)
    for (int i = 1; i <= bd::s; ++i) total = 31 * total + static_cast<unsigned>(bd::sv(i, j));
  return total;
}

// Successive starts from the first number of the uniform generator, as bench/reference_streams.py
// prints them: the same scrambling carried out bit by bit. On a line of the file stand ndim,
// maxpoints, ndigits and scramble, then points 0 and 777, then the checksum.
TEST(ScrambledSobol, EqualsTheBitByBitConstruction) {
  poly_vinit_define();
  std::ifstream starts(SCRAMBLED_STARTS);
  int run = 0;
  for (std::string line; std::getline(starts, line); ++run) {
    SCOPED_TRACE(line);
    std::replace_if(
        line.begin(), line.end(), [](char c) { return c < '0' || c > '9'; }, ' ');
    std::istringstream fields(line);
    std::vector<int> in(10);
    for (int& field : in) fields >> field;
    unsigned expected_checksum = 0;
    ASSERT_TRUE(fields >> expected_checksum);
    bool ok[2];
    int tquality;
    std::vector<double> point(static_cast<std::size_t>(in[0]));
    insobl(ok, in[0], in[1], tquality, point.data(), in[2], in[3]);
    ASSERT_TRUE(ok[0] && ok[1]);
    EXPECT_EQ(last_point(), std::vector(in.begin() + 4, in.begin() + 7));
    EXPECT_EQ(checksum(), expected_checksum);
    for (int n = 1; n <= 777; ++n) gosobl(point.data());
    EXPECT_EQ(last_point(), std::vector(in.begin() + 7, in.end()));
  }
  EXPECT_EQ(run, 8);
}

}  // namespace
}  // namespace statsubs
