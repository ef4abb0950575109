// SPDX-License-Identifier: Apache-2.0
#include "varda/support/threads.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cmath>
#include <stdexcept>
#include <vector>

#include "varda/support/orderless_sums.h"

namespace varda {
namespace {

TEST(ThreadTeam, DoesEveryItemOnceAndNeverTwoWithOneWorker) {
  for (const int threads : {1, 2, 5}) {
    const thread_team team(threads);
    std::vector<std::atomic<int>> done(3001);
    std::vector<std::atomic<int>> busy(static_cast<std::size_t>(threads));
    std::atomic<int> clashes = 0;
    for (int round = 0; round < 3; ++round)
      team.for_each(3001, [&](int item, int worker) {
        std::atomic<int>& own = busy.at(static_cast<std::size_t>(worker));
        if (++own != 1) ++clashes;
        ++done[static_cast<std::size_t>(item)];
        --own;
      });
    EXPECT_EQ(clashes, 0);
    for (const std::atomic<int>& count : done) ASSERT_EQ(count, 3);
  }
}

TEST(ThreadTeam, PassesAnExceptionOn) {
  const thread_team team(2);
  EXPECT_THROW(team.for_each(100,
                             [](int item, int) {
                               if (item == 57) throw std::runtime_error("57");
                             }),
               std::runtime_error);
  int after = 0;
  team.for_each(1, [&](int, int) { ++after; });
  EXPECT_EQ(after, 1);
}

// Beside sums in extended precision; in order, backwards and in two parts.
TEST(OrderlessSums, AreTheSameInAnyOrder) {
  std::vector<double> numbers;
  for (int k = 0; k < orderless_sums::most_numbers; ++k)
    numbers.push_back(std::sin(k) * std::pow(10.0, k % 25 - 9));
  long double expected = 0.0L;
  orderless_sums forwards(2), backwards(2), first(2), second(2);
  for (std::size_t k = 0; k < numbers.size(); ++k) {
    expected += numbers[k];
    forwards.add(1, numbers[k]);
    backwards.add(1, numbers[numbers.size() - 1 - k]);
    (k % 3 == 0 ? first : second).add(1, numbers[k]);
  }
  first.add(second);
  EXPECT_NEAR(forwards.totals()(1), static_cast<double>(expected),
              1e-15 * std::fabs(static_cast<double>(expected)) + 1e-6);
  EXPECT_EQ(forwards.totals(), backwards.totals());
  EXPECT_EQ(forwards.totals(), first.totals());
  EXPECT_EQ(forwards.totals()(0), 0.0);

  orderless_sums extreme(1);
  for (const double x : {0.25, 1e300, -0.75, std::nan(""), 1.0 / 0.0}) extreme.add(0, x);
  EXPECT_EQ(extreme.totals()(0), 3.0 * orderless_sums::largest);
}

}  // namespace
}  // namespace varda
