// SPDX-License-Identifier: Apache-2.0
#include "statsubs/support/array.h"

#include <gtest/gtest.h>

#include <utility>

namespace statsubs {
namespace {

TEST(Array, AddressesColumnMajorFromOne) {
  double storage[12];
  const matrix_view<double> m(storage, 2, 3, 4);
  EXPECT_EQ(&m(1, 1), storage);
  EXPECT_EQ(&m(2, 3), storage + 9);
  EXPECT_EQ(&m.column(2)(2), storage + 5);
  const cube_view<double> c(storage, 2, 3, 2);
  EXPECT_EQ(&c(2, 3, 2), storage + 11);
  EXPECT_EQ(&c.slice(2)(1, 2), storage + 8);
}

TEST(Array, OwnsOrBindsItsStorage) {
  matrix<double> a("a", 3, 2);
  EXPECT_EQ(a(3, 2), 0.0);
  a(3, 2) = 5.0;
  matrix<double> b = std::move(a);
  EXPECT_FALSE(
      a.allocated());  // NOLINT(bugprone-use-after-move): the moved-from state is the point
  EXPECT_EQ(b(3, 2), 5.0);

  double storage[2] = {1.0, 2.0};
  vector<double> v("v", 9);
  v.bind(storage, 2);
  v(2) = 7.0;
  EXPECT_EQ(storage[1], 7.0);
  EXPECT_EQ(v.size(), 2);

  vector<double> empty("empty", -3);
  EXPECT_TRUE(empty.allocated());
  EXPECT_EQ(empty.size(), 0);
}

TEST(ArrayDeathTest, RunningOutOfMemoryNamesTheArray) {
  EXPECT_EXIT(cube<double>("the whole world", 2147483647, 2147483647, 1000),
              testing::ExitedWithCode(1), "no memory for the whole world");
}

#ifdef STATSUBS_CHECKED
TEST(ArrayDeathTest, ASubscriptOutsideNamesTheCallersLine) {
  matrix<double> a("a", 3, 2);
  EXPECT_DEATH(a(4, 1) = 1.0, "array_test.cpp:[0-9]+: subscript 1 is 4, outside 1..3");
  EXPECT_DEATH(a(1, 0) = 1.0, "subscript 2 is 0, outside 1..2");
}
#endif

}  // namespace
}  // namespace statsubs
