// SPDX-License-Identifier: Apache-2.0
//
// Quadrature and presampling among several processes against one process, to the last bit.
#include <gtest/gtest.h>

#include <cmath>
#include <utility>
#include <vector>

#include "statsubs/estep/fgpresampledir2.h"
#include "statsubs/quadrature/agqintjoint.h"
#include "statsubs/state/global_variables.h"
#include "statsubs/state/qrpemlocalvariables.h"
#include "tests/statsubs/estep/estep_problem.h"

namespace statsubs {
namespace {

namespace gv = statsubs::global_variables;
namespace qv = statsubs::qrpemlocalvariables;
using test::estep_problem;

// What either routine leaves, from a start of the shared state and of unscrambled points that is
// always the same, and the number of evaluations. Every fifth evaluation or so fails.
std::pair<std::vector<double>, int> run(bool quadrature, int count, bool together) {
  estep_problem problem(3);
  test::start_sobol(3, 0);
  gv::npresample = count;
  gv::wtsumzscore = 0.0;
  gv::omega.allocate("omega", 3, 3);
  gv::etatable.allocate("etatable", 3, estep_problem::subject);
  qv::choleskyfactor.allocate("choleskyfactor", 3, 3, estep_problem::subject);
  for (int i = 1; i <= 3; ++i) gv::omega(i, i) = 1.0;
  problem.host.table().setmainstdev = [](const double&) {};
  int evaluations = 0;
  problem.host.objective = [&](int, const double* eta) {
    ++evaluations;
    gv::zscoresub = 1.0 + eta[0];
    return std::fmod(std::abs(eta[1]) * 1000.0, 5.0) < 1.0 ? std::nan("") : problem.objective(eta);
  };
  if (together) problem.host.evaluate_together();
  double loglik = -1.0;
  int info = -1;
  if (quadrature)
    agqintjoint(estep_problem::subject, count, loglik, info);
  else
    fgpresampledir2(estep_problem::subject, loglik, info);
  std::vector<double> all = {loglik, gv::wtsumzscore, static_cast<double>(info)};
  all.insert(all.end(), gv::xmusubnew.begin(), gv::xmusubnew.end());
  all.insert(all.end(), gv::omegasubnew.data(), gv::omegasubnew.data() + 9);
  return {all, evaluations};
}

void expect_equal(bool quadrature, int count, int points) {
  const int myid = std::exchange(gv::myid, 0);
  const int numprocs = std::exchange(gv::numprocs, 1);
  const auto alone = run(quadrature, count, false);
  gv::myid = myid;
  gv::numprocs = numprocs;
  EXPECT_EQ(alone.second, points);
  for (const bool together : {false, true}) {
    const auto shared = run(quadrature, count, together);
    EXPECT_EQ(shared.first, alone.first) << points << " points";
    EXPECT_EQ(shared.second, points / numprocs + (myid > 0 && myid <= points % numprocs ? 1 : 0));
  }
}

// Fewer points than processes among the cases; grids of one block and of several.
TEST(QuadratureInAJob, EqualsThatOfOneProcess) {
  for (const int nodes : {1, 2, 7, 21}) expect_equal(true, nodes, nodes * nodes * nodes);
}

TEST(PresamplingInAJob, EqualsThatOfOneProcess) {
  for (const int points : {2, 3, 5, 60, 301, 1030}) expect_equal(false, points, points);
}

}  // namespace
}  // namespace statsubs
