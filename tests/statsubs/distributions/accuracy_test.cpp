// SPDX-License-Identifier: Apache-2.0
#include <gtest/gtest.h>

#include <iomanip>
#include <ostream>

#include "bench/accuracy_cases.h"

namespace test {

// How a failing case introduces itself.
void PrintTo(const accuracy_case& shown, std::ostream* out) {
  *out << shown.name << " on " << shown.range;
}

}  // namespace test

namespace {

class accuracy : public testing::TestWithParam<test::accuracy_case> {};

TEST_P(accuracy, stays_within_its_bound) {
  const test::largest_error worst = GetParam().sweep(1);
  EXPECT_GE(worst.points, 20);
  EXPECT_LE(worst.error, GetParam().bound)
      << std::setprecision(17) << "at a = " << worst.at.a << ", x = " << worst.at.x;
}

INSTANTIATE_TEST_SUITE_P(every, accuracy, testing::ValuesIn(test::accuracy_cases()),
                         [](const auto& shown) { return shown.param.name; });

}  // namespace
