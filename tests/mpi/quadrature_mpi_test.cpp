// SPDX-License-Identifier: Apache-2.0
//
// Quadrature and presampling among several processes against one process, to the last bit.
#include <gtest/gtest.h>

#include <cmath>
#include <functional>
#include <limits>
#include <utility>
#include <vector>

#include "statsubs/estep/fgpresampledir2.h"
#include "statsubs/quadrature/agqintjoint.h"
#include "statsubs/sequences/bdsobl.h"
#include "statsubs/state/global_variables.h"
#include "statsubs/state/qrpemlocalvariables.h"
#include "tests/statsubs/estep/estep_problem.h"

namespace statsubs {
namespace {

namespace gv = statsubs::global_variables;
namespace qv = statsubs::qrpemlocalvariables;
namespace bd = statsubs::bdsobl;
using test::estep_problem;

constexpr int subject = estep_problem::subject;

std::vector<double> results_of(const std::function<void(double&, int&)>& routine) {
  double loglik = -1.0;
  int info = -1;
  routine(loglik, info);
  std::vector<double> all = {loglik, gv::wtsumzscore, static_cast<double>(info)};
  all.insert(all.end(), gv::xmusubnew.begin(), gv::xmusubnew.end());
  all.insert(all.end(), gv::omegasubnew.data(), gv::omegasubnew.data() + 9);
  const double* factor = qv::choleskyfactor.slice(subject).data();
  all.insert(all.end(), factor, factor + 9);
  return all;
}

// Results of the routine by this process alone, then by all; `evaluations` counts those of the
// latter. Every fifth evaluation or so fails.
void expect_equal(estep_problem& problem, int points,
                  const std::function<void(double&, int&)>& routine) {
  int evaluations = 0;
  problem.host.objective = [&](int, const double* eta) {
    ++evaluations;
    gv::zscoresub = 1.0 + eta[0];
    return std::fmod(std::abs(eta[1]) * 1000.0, 5.0) < 1.0
               ? std::numeric_limits<double>::quiet_NaN()
               : problem.objective(eta);
  };
  const bd::dimension_vector lastq = bd::lastq;
  const int count = bd::count;
  const int myid = std::exchange(gv::myid, 0);
  const int numprocs = std::exchange(gv::numprocs, 1);
  const std::vector<double> expected = results_of(routine);
  gv::myid = myid;
  gv::numprocs = numprocs;
  bd::lastq = lastq;
  bd::count = count;
  evaluations = 0;
  EXPECT_EQ(results_of(routine), expected) << points << " points";
  int own = 0;
  for (int k = 1; k <= points; ++k) own += k % numprocs == myid ? 1 : 0;
  EXPECT_EQ(evaluations, own);
}

struct shared_problem : estep_problem {
  shared_problem() : estep_problem(3) {
    gv::wtsumzscore = 0.0;
    gv::omega.allocate("omega", 3, 3);
    gv::etatable.allocate("etatable", 3, subject);
    qv::choleskyfactor.allocate("choleskyfactor", 3, 3, subject);
    for (int i = 1; i <= 3; ++i) gv::omega(i, i) = 1.0;
    host.table().setmainstdev = [](const double&) {};
  }
};

// Grids of fewer points than processes, of one block and of several.
TEST(QuadratureInAJob, EqualsThatOfOneProcess) {
  for (const int nodes : {1, 2, 7, 21}) {
    shared_problem problem;
    expect_equal(problem, nodes * nodes * nodes,
                 [nodes](double& loglik, int& info) { agqintjoint(subject, nodes, loglik, info); });
  }
}

TEST(PresamplingInAJob, EqualsThatOfOneProcess) {
  for (const int pseudo_random : {0, 1})
    for (const int points : {2, 3, 5, 60, 301}) {
      shared_problem problem;
      gv::iflagmcpem = pseudo_random;
      gv::npresample = points;
      expect_equal(problem, points,
                   [](double& loglik, int& info) { fgpresampledir2(subject, loglik, info); });
    }
}

}  // namespace
}  // namespace statsubs
