// SPDX-License-Identifier: Apache-2.0
#include <gtest/gtest.h>

#include <cstddef>
#include <vector>

#include "statsubs/sequences/bdsobl.h"
#include "statsubs/sequences/sobol.h"

namespace statsubs {
namespace {

namespace bd = statsubs::bdsobl;

struct coordinates {
  int first, second, last;  // of dimensions 1, 2 and ndim
  bool operator==(const coordinates&) const = default;
};

coordinates last_point() {
  return {bd::lastq(1), bd::lastq(2), bd::lastq(bd::s)};
}

// Over every direction number in use, column after column.
unsigned checksum() {
  unsigned total = 0;
  for (int j = 1; j <= bd::maxcol; ++j)
    for (int i = 1; i <= bd::s; ++i) total = 31 * total + static_cast<unsigned>(bd::sv(i, j));
  return total;
}

struct start {
  int ndim, maxpoints, ndigits, scramble;
  coordinates point_0, point_777;
  unsigned checksum;
};

// clang-format off
constexpr start starts[] = {
    {40, 1073741823, 30, 1, {110327324, 924994756, 949434292}, {640366203, 449597205, 730456744}, 2141568792u},
    {40, 1073741823, 30, 2, {967027470, 355315510, 20982462}, {89369358, 343781174, 865086142}, 3202881206u},
    {40, 1073741823, 30, 3, {43359036, 749882144, 1034951552}, {873136092, 722084527, 136281404}, 707253636u},
    {40, 100000, 31, 1, {483826499, 467930369, 1697265431}, {1374404756, 1089620770, 1385846373}, 2826975605u},
    {40, 1000, 31, 3, {819807182, 1630859120, 1049375852}, {299530234, 1381323858, 1141774065}, 4108927439u},
    {7, 5000, 0, 2, {5495, 5291, 2569}, {207, 4035, 7633}, 1048965785u},
    {3, 1073741823, 31, 3, {751021045, 860174945, 1225694496}, {290936131, 1121831591, 1287335787}, 575362252u},
    {40, 1073741823, 0, 0, {0, 0, 0}, {743440384, 1005584384, 443547648}, 951546362u},
};
// clang-format on

// Successive starts from the first number of the uniform generator, as bench/reference_streams.py
// prints them: the same scrambling carried out bit by bit.
TEST(ScrambledSobol, EqualsTheBitByBitConstruction) {
  poly_vinit_define();
  int run = 0;
  for (const start& expected : starts) {
    SCOPED_TRACE(++run);
    bool ok[2];
    int tquality;
    std::vector<double> point(static_cast<std::size_t>(expected.ndim));
    insobl(ok, expected.ndim, expected.maxpoints, tquality, point.data(), expected.ndigits,
           expected.scramble);
    ASSERT_TRUE(ok[0] && ok[1]);
    EXPECT_EQ(last_point(), expected.point_0);
    EXPECT_EQ(checksum(), expected.checksum);
    for (int n = 1; n <= 777; ++n) gosobl(point.data());
    EXPECT_EQ(last_point(), expected.point_777);
  }
}

}  // namespace
}  // namespace statsubs
