// SPDX-License-Identifier: Apache-2.0
//
// The E-step among several processes against the E-step of one process, to the last bit. A failed
// check must not keep a process from a collective call, so no test here is left early.
#include <gtest/gtest.h>
#include <mpi.h>

#include <chrono>
#include <cmath>
#include <limits>
#include <numeric>
#include <thread>
#include <utility>

#include "statsubs/sequences/bdsobl.h"
#include "statsubs/state/global_variables.h"
#include "statsubs/state/saveearlyvars.h"
#include "statsubs/support/array.h"
#include "statsubs/support/parallel.h"
#include "tests/statsubs/estep/estep_problem.h"

namespace statsubs {
namespace {

namespace gv = statsubs::global_variables;
namespace bd = statsubs::bdsobl;
namespace se = statsubs::saveearlyvars;
using test::estep_problem;
using test::estep_results;
using test::run_estep;

constexpr double not_a_number = std::numeric_limits<double>::quiet_NaN();

// The E-step of this process by itself, after which the Sobol sequence stands where it stood.
estep_results run_alone(int samples) {
  const bd::dimension_vector lastq = bd::lastq;
  const int count = bd::count;
  const int myid = std::exchange(gv::myid, 0);
  const int numprocs = std::exchange(gv::numprocs, 1);
  const estep_results results = run_estep(samples);
  gv::myid = myid;
  gv::numprocs = numprocs;
  bd::lastq = lastq;
  bd::count = count;
  return results;
}

// The samples of this process among `samples`: those j for which j mod numprocs is its number.
int own_share(int samples) {
  return (samples - gv::myid) / gv::numprocs + (gv::myid > 0 && gv::myid <= samples ? 1 : 0);
}

class EstepInAJob : public testing::TestWithParam<int> {};
INSTANTIATE_TEST_SUITE_P(, EstepInAJob, testing::Values(0, 2, 1, -2, -3, 4));

// Fewer samples than processes among the cases; every fifth evaluation or so fails.
TEST_P(EstepInAJob, EqualsThatOfOneProcess) {
  for (const int pseudo_random : {0, 1})
    for (const int samples : {1, 2, 3, 5, 60, 301, 1030}) {
      estep_problem problem(3);
      gv::impsampdof = GetParam();
      gv::iflagmcpem = pseudo_random;
      int evaluations = 0;
      problem.host.objective = [&](int, const double* eta) {
        ++evaluations;
        gv::zscoresub = 1.0 + eta[0];
        return std::fmod(std::abs(eta[1]) * 1000.0, 5.0) < 1.0 ? not_a_number
                                                               : problem.objective(eta);
      };
      const bd::dimension_vector lastq = bd::lastq;
      const int count = bd::count;
      const estep_results expected = run_alone(samples);
      evaluations = 0;
      const estep_results shared = run_estep(samples);
      EXPECT_TRUE(shared == expected) << samples << " samples";
      EXPECT_EQ(evaluations, 1 + own_share(samples));

      bd::lastq = lastq;
      bd::count = count;
      problem.host.evaluate_together();
      EXPECT_TRUE(run_estep(samples) == expected) << samples << " samples in blocks";
      const auto& sizes = problem.host.together;
      EXPECT_EQ(std::accumulate(sizes.begin(), sizes.end(), 0), own_share(samples));
    }
}

// A stop that one process alone sees ends the subject everywhere: its host agrees with the others.
TEST(EstepStopInAJob, EndsTheSubjectOnEveryProcess) {
  estep_problem problem(2);
  int evaluations = 0;
  problem.host.objective = [&](int, const double* eta) {
    ++evaluations;
    gv::theta(1) += 1.0;
    return problem.objective(eta);
  };
  const int last = gv::numprocs - 1;
  problem.host.stop = [&] { return gv::myid == last && evaluations == 3 ? 1 : 0; };
  problem.host.table().checkforstop = [](int& flag) {
    MPI_Allreduce(&flag, &se::globalstop, 1, MPI_INT, MPI_MAX, MPI_COMM_WORLD);
  };
  const estep_results r = run_estep(40);
  EXPECT_EQ(evaluations, gv::myid == last ? 3 : 1 + own_share(40));
  EXPECT_EQ(gv::theta(1), 10.0);
  EXPECT_EQ(r.loglik, -1.0);
  EXPECT_EQ(r.weights[0], -1.0);
  EXPECT_EQ(r.mean[0], -1.0);
}

// A single contributor's values come through to the last bit: nothing else makes the results equal.
TEST(AllreduceSum, AddsTheVectorsOfAllProcesses) {
  const auto value = [](int i) { return std::exp(0.37 * i) / 3.0; };
  vector<double> shared("from all processes", 301), single("from one process each", 301);
  for (int i = 1; i <= 301; ++i) {
    shared(i) = i * (gv::myid + 1.0);
    single(i) = i % gv::numprocs == gv::myid ? value(i) : 0.0;
  }
  support::allreduce_sum(shared, 1);  // by itself: nothing changes
  support::allreduce_sum(shared, gv::numprocs);
  support::allreduce_sum(single, gv::numprocs);
  support::allreduce_sum({}, gv::numprocs);
  for (int i = 1; i <= 301; ++i) {
    EXPECT_EQ(shared(i), i * gv::numprocs * (gv::numprocs + 1) / 2.0);
    EXPECT_EQ(single(i), value(i));
  }
}

// Processes of one machine share the steady clock.
TEST(Barrier, IsNotPassedBeforeTheLastProcessArrives) {
  const auto now = [] {
    return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch())
        .count();
  };
  std::this_thread::sleep_for(std::chrono::milliseconds(30 * gv::myid));
  const double arrived = now();
  support::barrier(gv::numprocs);
  const double passed = now();
  double last_arrival = 0.0;
  MPI_Allreduce(&arrived, &last_arrival, 1, MPI_DOUBLE, MPI_MAX, MPI_COMM_WORLD);
  EXPECT_GE(passed, last_arrival);
}

}  // namespace
}  // namespace statsubs
