// SPDX-License-Identifier: Apache-2.0
#include "varda/support/threads.h"

#include <gtest/gtest.h>

#include <atomic>
#include <stdexcept>
#include <vector>

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

}  // namespace
}  // namespace varda
