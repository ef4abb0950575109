// SPDX-License-Identifier: Apache-2.0
#include "statsubs/sequences/uni.h"

#include <gtest/gtest.h>

namespace statsubs {
namespace {

// Numbers from bench/reference_streams.py. A wrong borrow or one rounding too many anywhere before
// a number shows in it, since every number descends from all before.
TEST(Uni, FollowsTheRecurrenceToTheLastBit) {
  struct {
    int n;
    double number;
  } const expected[] = {{1, 0x1.5aa1af11d0e2ep-2},
                        {2, 0x1.41ab847da8a24p-1},
                        {25, 0x1.51cad80006b60p-1},
                        {1000, 0x1.db976c9f6b0bfp-1},
                        {1000000, 0x1.1a80ebf410110p-2}};
  int drawn = 0;
  for (const auto& e : expected) {
    double number = 0.0;
    for (; drawn < e.n; ++drawn) {
      number = uni();
      ASSERT_TRUE(number >= 0.0 && number <= 1.0) << "number " << drawn + 1;
    }
    EXPECT_EQ(number, e.number) << "number " << e.n;
  }
}

}  // namespace
}  // namespace statsubs
