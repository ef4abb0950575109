// SPDX-License-Identifier: Apache-2.0
//
// A callable of a host in C++ throws. The exception reaches a caller in C++ with the parameters
// that a routine moves back in place; a caller in C gets a status.
#include <gtest/gtest.h>

#include <stdexcept>
#include <string>
#include <vector>

#include "statsubs/c/statsubs.h"
#include "statsubs/estep/fgintegrate.h"
#include "statsubs/mstep/itmapnp.h"
#include "statsubs/state/global_variables.h"
#include "statsubs/stderr/scoretheta.h"
#include "tests/statsubs/estep/estep_problem.h"
#include "tests/statsubs/stderr/score_problem.h"

namespace statsubs {
namespace {

namespace gv = statsubs::global_variables;

struct model_broke : std::runtime_error {
  model_broke() : std::runtime_error("the model broke") {}
};

TEST(HostException, LeavesTheEStepAsItWas) {
  constexpr int samples = 30;
  gv::numprocs = 1;
  test::estep_problem problem(2);
  test::start_sobol(2, 0);
  const test::estep_results undisturbed = test::run_estep(samples);

  const auto sound = problem.host.objective;
  int evaluations = 0;
  problem.host.objective = [&](int isub, const double* eta) {
    if (++evaluations == samples / 2) {
      gv::theta(1) = -1.0;
      throw model_broke();
    }
    return sound(isub, eta);
  };
  test::start_sobol(2, 0);
  EXPECT_THROW(test::run_estep(samples), model_broke);
  EXPECT_EQ(gv::theta(1), 10.0);

  evaluations = 0;
  std::vector<double> drawn(2 * samples), weights(samples);
  double loglik = 0.0;
  EXPECT_EQ(statsubs_fgintegrate(test::estep_problem::subject, samples, drawn.data(),
                                 weights.data(), &loglik),
            STATSUBS_HOST_EXCEPTION);
  EXPECT_EQ(std::string(statsubs_last_error()), "the model broke");

  test::start_sobol(2, 0);
  EXPECT_TRUE(test::run_estep(samples) == undisturbed);
}

TEST(HostException, LeavesTheScoresParametersAsTheyWere) {
  gv::numprocs = 1;
  test::score_problem problem;
  const double theta4 = gv::theta(4), theta5 = gv::theta(5), sigmasq = gv::sigmasq;
  const auto sound = problem.host.objective;
  for (const int last : {2, 4}) {  // within the differences by theta 4 and by theta 5
    int evaluations = 0;
    problem.host.objective = [&](int isub, const double* eta) {
      if (++evaluations == last) throw model_broke();
      return sound(isub, eta);
    };
    EXPECT_THROW(problem.score(), model_broke);
    EXPECT_EQ(gv::theta(4), theta4);
    EXPECT_EQ(gv::theta(5), theta5);
    EXPECT_EQ(gv::sigmalchol, theta5);
    EXPECT_EQ(gv::sigmasq, sigmasq);
  }
}

TEST(HostException, LeavesTheStartUpsEngineAsItWas) {
  const test::fake_host host;
  const test::captured_unit output;
  statsubs::installed_host().globalblups2 = [] {};
  statsubs::installed_host().estflattheta = [](double&) {
    gv::iflathess = 5;
    throw model_broke();
  };
  gv::numprocs = gv::ngetmapnp = gv::nsub = gv::ntheta = 1;
  gv::theta.allocate("theta", 1);
  gv::etatable.allocate("etatable", 1, 1);
  gv::idengine = 3;
  gv::iflathess = 0;
  double etaout = 0.0;
  EXPECT_THROW(itmapnp(1, &etaout), model_broke);
  EXPECT_EQ(gv::idengine, 3);
  EXPECT_EQ(gv::iflathess, 0);
}

}  // namespace
}  // namespace statsubs
