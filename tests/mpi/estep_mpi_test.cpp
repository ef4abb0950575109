// SPDX-License-Identifier: Apache-2.0
//
// The E-step among several processes against the E-step of one process, to the last bit. A failed
// check must not keep a process from a collective call, so no test here is left early.
#include <gtest/gtest.h>
#include <mpi.h>

#include <chrono>
#include <cmath>
#include <limits>
#include <thread>
#include <vector>

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

// This process by itself, for as long as the object lives.
class alone {
 public:
  alone() : myid_(gv::myid), numprocs_(gv::numprocs) {
    gv::myid = 0;
    gv::numprocs = 1;
  }
  ~alone() {
    gv::myid = myid_;
    gv::numprocs = numprocs_;
  }
  alone(const alone&) = delete;
  alone& operator=(const alone&) = delete;

 private:
  int myid_, numprocs_;
};

// The same points again: the sequence goes back to where it stood.
class sobol_position {
 public:
  void restore() const {
    bd::lastq = lastq_;
    bd::count = count_;
  }

 private:
  bd::dimension_vector lastq_ = bd::lastq;
  int count_ = bd::count;
};

// The samples of this process among `samples`.
int own_share(int samples) {
  int share = 0;
  for (int j = 1; j <= samples; ++j)
    if (j % gv::numprocs == gv::myid) ++share;
  return share;
}

class EstepInAJob : public testing::TestWithParam<int> {};
INSTANTIATE_TEST_SUITE_P(, EstepInAJob, testing::Values(0, 2, 1, -2, -3, 4));

// Fewer samples than processes among the cases; every fifth evaluation or so fails.
TEST_P(EstepInAJob, EqualsThatOfOneProcess) {
  for (const int pseudo_random : {0, 1})
    for (const int samples : {1, 2, 3, 5, 60, 301}) {
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
      const sobol_position start;
      const estep_results expected = [&] {
        const alone by_itself;
        return run_estep(samples);
      }();
      start.restore();
      evaluations = 0;
      const estep_results shared = run_estep(samples);
      EXPECT_TRUE(shared == expected) << samples << " samples";
      EXPECT_EQ(evaluations, 1 + own_share(samples));
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

TEST(AllreduceSum, AddsTheVectorsOfAllProcesses) {
  vector<double> part("a process's part", 100);
  for (int i = 1; i <= part.size(); ++i) part(i) = i * (gv::myid + 1.0);
  support::allreduce_sum(part, gv::numprocs);
  const double ranks = gv::numprocs * (gv::numprocs + 1) / 2.0;
  for (int i = 1; i <= part.size(); ++i) EXPECT_EQ(part(i), i * ranks);
  support::allreduce_sum({}, gv::numprocs);
}

// A single contributor's values come through unchanged: nothing else makes the results equal.
TEST(AllreduceSum, KeepsEveryBitOfASingleContribution) {
  vector<double> part("a process's part", 301);
  const auto value = [](int i) { return std::exp(0.37 * i) / 3.0; };
  for (int i = 1; i <= part.size(); ++i)
    if (i % gv::numprocs == gv::myid) part(i) = value(i);
  support::allreduce_sum(part, gv::numprocs);
  for (int i = 1; i <= part.size(); ++i) EXPECT_EQ(part(i), value(i));
}

TEST(AllreduceSum, LeavesAProcessByItselfAlone) {
  vector<double> part("a process's part", 2);
  part(1) = gv::myid;
  support::allreduce_sum(part, 1);
  EXPECT_EQ(part(1), gv::myid);
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
