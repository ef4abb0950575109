// SPDX-License-Identifier: Apache-2.0
#include <gtest/gtest.h>

#include <cstddef>
#include <vector>

#include "statsubs/state/global_variables.h"
#include "tests/statsubs/stderr/score_problem.h"

namespace statsubs {
namespace {

namespace gv = statsubs::global_variables;

// The score of a subject among several processes against that of one, to the last bit; with fewer
// samples than processes among the cases.
TEST(ScorethetaInAJob, EqualsThatOfOneProcess) {
  const int myid = gv::myid;
  const int numprocs = gv::numprocs;
  for (const int samples : {1, 2, 5, 41, 1030}) {
    test::score_problem problem;
    problem.weights.clear();
    problem.samples.clear();
    int own = 0;
    for (int k = 1; k <= samples; ++k) {
      problem.weights.push_back(1.0 / (3.0 * k));
      for (int e = 0; e < 3; ++e) problem.samples.push_back(0.1 * ((7 * k + 5 * e) % 19) - 0.93);
      if (k % numprocs == myid) ++own;
    }
    problem.score();
    EXPECT_EQ(problem.evaluations, 5 * own);
    const std::vector<double> shared = problem.information;
    problem.host.evaluate_together();
    problem.score();
    EXPECT_EQ(problem.information, shared) << samples << " samples in blocks";

    gv::myid = 0;
    gv::numprocs = 1;
    problem.score();
    gv::myid = myid;
    gv::numprocs = numprocs;
    EXPECT_EQ(shared, problem.information) << samples << " samples";
  }
}

}  // namespace
}  // namespace statsubs
