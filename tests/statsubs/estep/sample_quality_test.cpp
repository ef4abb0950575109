// SPDX-License-Identifier: Apache-2.0
#include "statsubs/estep/sample_quality.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <numeric>
#include <vector>

#include "tests/support/fake_host.h"

namespace statsubs {
namespace {

using testing::ElementsAre;

TEST(ImpMerit, TellsEqualFromConcentratedWeights) {
  double rms, peak, frac;
  const std::vector<double> equal(8, 0.125);
  imp_merit(equal.data(), 8, rms, peak, frac);
  EXPECT_EQ(rms, 1.0);
  EXPECT_EQ(peak, 1.0);
  EXPECT_EQ(frac, 1.0);

  const double single[] = {0.0, 0.0, 1.0, 0.0};
  imp_merit(single, 4, rms, peak, frac);
  EXPECT_EQ(rms, 2.0);
  EXPECT_EQ(peak, 4.0);
  EXPECT_EQ(frac, 0.25);

  const double at_the_threshold[] = {0.3 / 3, 0.45, 0.45};
  imp_merit(at_the_threshold, 3, rms, peak, frac);
  EXPECT_DOUBLE_EQ(rms, std::sqrt(3.0 * (0.1 * 0.1 + 2.0 * 0.45 * 0.45)));
  EXPECT_DOUBLE_EQ(frac, 2.0 / 3.0);
}

TEST(Isir, InvertsTheCumulativeWeights) {
  const double w[] = {0.25, 0.0, 0.5, 0.25};
  EXPECT_EQ(isir(0.1, w, 4), 1);
  EXPECT_EQ(isir(0.25, w, 4), 1);
  EXPECT_EQ(isir(std::nextafter(0.25, 1.0), w, 4), 3);
  EXPECT_EQ(isir(0.8, w, 4), 4);
  const double short_of_one[] = {0.5, 0.499};
  EXPECT_EQ(isir(0.9999, short_of_one, 2), 2);
  EXPECT_EQ(isir(0.5, w, 0), 0);
}

std::vector<double> shuffled(int n) {
  std::vector<double> a(static_cast<std::size_t>(n));
  std::iota(a.begin(), a.end(), 1.0);
  knuth_shuf(a.data(), n);
  return a;
}

TEST(KnuthShuf, GivesOnePermutationForEachLength) {
  const std::vector<double> first = shuffled(50);
  EXPECT_EQ(shuffled(50), first);
  std::vector<double> sorted = first;
  std::sort(sorted.begin(), sorted.end());
  for (int i = 0; i < 50; ++i) EXPECT_EQ(sorted[static_cast<std::size_t>(i)], i + 1.0);
  EXPECT_NE(first, sorted);
  EXPECT_THAT(shuffled(1), ElementsAre(1.0));
  knuth_shuf(nullptr, 0);
}

// The partner of entry i is the integer part of (n - i) u + i + 0.999999999, worked out by hand.
TEST(KnuthShuf, ExchangesWithThePartnerThatTheNumberNames) {
  test::fake_host host;
  host.table().dran3 = [](int& state) {
    const double stream[] = {0.0, 0.001, 1.0, 0.5};
    return stream[state++ - 1];
  };
  // 1 with 1, 2 with 3 (the sum is 3.003), 3 with 5, 4 with 5 (5.5).
  EXPECT_THAT(shuffled(5), ElementsAre(1.0, 3.0, 5.0, 2.0, 4.0));
}

}  // namespace
}  // namespace statsubs
