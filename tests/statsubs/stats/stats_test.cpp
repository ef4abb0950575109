// SPDX-License-Identifier: Apache-2.0
//
// Sorting through an index, percentiles and correlation.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <limits>
#include <random>
#include <vector>

#include "statsubs/stats/corrcoef.h"
#include "statsubs/stats/percentile.h"
#include "statsubs/stats/qsortr8.h"

namespace statsubs {
namespace {

using sample = std::vector<double>;

constexpr double nan = std::numeric_limits<double>::quiet_NaN();

// The index of `data`, which must be a permutation.
std::vector<int> sorted_index(const sample& data) {
  std::vector<int> index(data.size(), -1);
  qsortr8(static_cast<int>(data.size()), data.data(), index.data());
  std::vector<int> positions = index;
  std::sort(positions.begin(), positions.end());
  for (int i = 1; i <= static_cast<int>(data.size()); ++i) EXPECT_EQ(positions[i - 1U], i);
  return index;
}

void expect_sorts(const sample& data) {
  const std::vector<int> index = sorted_index(data);
  const auto ascending = [&](int a, int b) { return data[a - 1U] < data[b - 1U]; };
  EXPECT_TRUE(std::is_sorted(index.begin(), index.end(), ascending)) << data.size();
}

// Sizes on both sides of the shortest vector that is partitioned, and large ones.
TEST(Qsortr8, SortsEveryShapeOfData) {
  std::mt19937 random(1);
  for (const int n : {0, 1, 2, 9, 10, 11, 12, 21, 22, 1000, 100000}) {
    sample noise, few, sorted, reversed, organ_pipe;
    for (int i = 0; i < n; ++i) {
      noise.push_back(std::normal_distribution<double>()(random));
      few.push_back(i % 7 == 0 ? -INFINITY : static_cast<double>(random() % 7));
      sorted.push_back(i);
      reversed.push_back(-i);
      organ_pipe.push_back(std::min(i, n - i));
    }
    const sample equal(noise.size(), 2.5);
    for (const sample& data : {noise, few, sorted, reversed, organ_pipe, equal}) expect_sorts(data);
  }
}

// Ten equal entries are partitioned: the scans stop at every entry between the ends and swap them
// in pairs. Nine go to the insertion pass, which moves no entry past its equal.
TEST(Qsortr8, PartitionsFromTenEntries) {
  EXPECT_EQ(sorted_index(sample(9, 1.0)), (std::vector<int>{1, 2, 3, 4, 5, 6, 7, 8, 9}));
  EXPECT_EQ(sorted_index(sample(10, 1.0)), (std::vector<int>{1, 9, 8, 7, 6, 5, 4, 3, 2, 10}));
}

TEST(Qsortr8, EntriesThatAreNotNumbersLeaveAPermutation) {
  std::mt19937 random(2);
  for (int trial = 0; trial < 1000; ++trial) {
    sample data(10 + random() % 400);
    for (double& value : data) value = random() % 3 == 0 ? nan : static_cast<double>(random() % 9);
    sorted_index(data);
  }
}

double percentile_of(double x, const sample& values) {
  double p = -1.0;
  percentile(static_cast<int>(values.size()), x, values.data(), p);
  return p;
}

TEST(Percentile, IsTheMiddleOfTheRankInterval) {
  EXPECT_EQ(percentile_of(2, {1, 2, 3}), 0.375);
  EXPECT_EQ(percentile_of(2, {2, 3, 2, 1, 2, 4, 0}), 2.5 / 8);  // below all its equals
  EXPECT_EQ(percentile_of(-9, {1, 2, 3}), 0.125);
  EXPECT_EQ(percentile_of(9, {1, 2, 3}), 0.875);
  EXPECT_EQ(percentile_of(2, {nan, 3, 3, nan, nan}), 0.5 / 3);
  EXPECT_EQ(percentile_of(nan, {1, 2, 3}), 0.5);
  EXPECT_EQ(percentile_of(1, {}), 0.5);
}

double correlation(const sample& x, const sample& y) {
  double r = -9.0;
  corrcoef(static_cast<int>(x.size()), x.data(), y.data(), r);
  return r;
}

TEST(Corrcoef, ClosedForms) {
  // Deviations (-2, -1, 0, 1, 2) and (-2, 0, -1, 2, 1): sums 8, 10, 10. With 2^30 added to both,
  // sums of raw products would lose the deviations.
  for (const double offset : {0.0, 0x1p30}) {
    sample x, y, minus_y;
    for (const int value : {1, 2, 3, 4, 5}) x.push_back(offset + value);
    for (const int value : {1, 3, 2, 5, 4}) y.push_back(offset + value);
    for (const double value : y) minus_y.push_back(-value);
    EXPECT_DOUBLE_EQ(correlation(x, y), 0.8);
    EXPECT_DOUBLE_EQ(correlation(x, minus_y), -0.8);
    EXPECT_DOUBLE_EQ(correlation(y, y), 1.0);
  }
  EXPECT_EQ(correlation({-1, 0, 1}, {1, -2, 1}), 0.0);
}

TEST(Corrcoef, IsNotANumberWithoutVariation) {
  EXPECT_TRUE(std::isnan(correlation({}, {})));
  EXPECT_TRUE(std::isnan(correlation({4}, {5})));
  EXPECT_TRUE(std::isnan(correlation({1, 2, 3}, {2, 2, 2})));
  EXPECT_TRUE(std::isnan(correlation({1, nan, 3}, {1, 2, 3})));
}

}  // namespace
}  // namespace statsubs
