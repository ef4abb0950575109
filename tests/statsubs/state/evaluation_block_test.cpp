// SPDX-License-Identifier: Apache-2.0
//
// A host with fcnxetas against the same host without: equal results to the last bit.
#include "statsubs/state/evaluation_block.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cmath>
#include <cstddef>
#include <limits>
#include <vector>

#include "statsubs/estep/fgpresampledir2.h"
#include "statsubs/quadrature/agqintjoint.h"
#include "statsubs/state/global_variables.h"
#include "statsubs/state/qrpemlocalvariables.h"
#include "tests/statsubs/estep/estep_problem.h"
#include "tests/statsubs/stderr/score_problem.h"

namespace statsubs {
namespace {

namespace gv = statsubs::global_variables;
namespace qv = statsubs::qrpemlocalvariables;
using test::estep_problem;
using test::estep_results;
using testing::ElementsAre;

constexpr double not_a_number = std::numeric_limits<double>::quiet_NaN();

// The problem with three random effects, of which every fifth evaluation or so fails, with points
// that are the same for every object.
struct failing_problem : estep_problem {
  explicit failing_problem(bool together) : estep_problem(3) {
    gv::myid = 0;
    gv::numprocs = 1;
    test::start_sobol(3, 0);
    host.objective = [this](int, const double* eta) {
      ++evaluations;
      gv::zscoresub = 1.0 + eta[0];
      return std::fmod(std::abs(eta[1]) * 1000.0, 5.0) < 1.0 ? not_a_number : objective(eta);
    };
    if (together) host.evaluate_together();
  }
  int evaluations = 0;
};

TEST(Blocks, GiveTheEStepTheSameBits) {
  for (const int family : {0, -3, 4})
    for (const int samples : {1, 255, 256, 257, 600}) {
      gv::impsampdof = family;
      failing_problem single(false);
      gv::impsampdof = family;
      const estep_results expected = test::run_estep(samples);
      const double last_score = gv::zscoresub;
      failing_problem blocks(true);
      gv::impsampdof = family;
      EXPECT_TRUE(test::run_estep(samples) == expected) << family << " " << samples;
      EXPECT_EQ(gv::zscoresub, last_score);
      EXPECT_EQ(blocks.evaluations, single.evaluations);
      EXPECT_EQ(blocks.host.together.size(), static_cast<std::size_t>((samples + 255) / 256));
    }
}

// A stop that is seen after the second block, by a host that declines it: what counts is that of a
// host that is stopped at the first sample of that block.
TEST(Blocks, AreNotRecordedWhenAStopIsSeen) {
  const auto stopped = [](bool together, int at) {
    failing_problem problem(together);
    problem.host.table().checkforstop = [](int&) {};
    problem.host.stop = [&] { return problem.evaluations == at ? 1 : 0; };
    const estep_results results = test::run_estep(600);
    EXPECT_EQ(problem.evaluations, at);
    return results;
  };
  EXPECT_TRUE(stopped(true, 1 + 512) == stopped(false, 1 + 257));
}

TEST(Blocks, GivePresamplingAndQuadratureTheSameBits) {
  for (const bool quadrature : {false, true}) {
    std::vector<std::vector<double>> found;
    for (const bool together : {false, true}) {
      failing_problem problem(together);
      problem.host.table().setmainstdev = [](const double&) {};
      gv::npresample = 1000;
      gv::wtsumzscore = 0.0;
      gv::omega.allocate("omega", 3, 3);
      for (int i = 1; i <= 3; ++i) gv::omega(i, i) = 1.0;
      gv::etatable.allocate("etatable", 3, estep_problem::subject);
      qv::choleskyfactor.allocate("choleskyfactor", 3, 3, estep_problem::subject);
      double loglik = 0.0;
      int info = -1;
      if (quadrature)
        agqintjoint(estep_problem::subject, 17, loglik, info);  // two blocks of the grid
      else
        fgpresampledir2(estep_problem::subject, loglik, info);
      EXPECT_EQ(problem.host.together.size(), !together ? 0U : quadrature ? 20U : 4U);
      found.push_back({loglik, gv::wtsumzscore, static_cast<double>(info),
                       static_cast<double>(problem.evaluations)});
      found.back().insert(found.back().end(), gv::xmusubnew.begin(), gv::xmusubnew.end());
      found.back().insert(found.back().end(), gv::omegasubnew.data(), gv::omegasubnew.data() + 9);
    }
    EXPECT_EQ(found[0], found[1]);
  }
}

// Among the samples are some that are too light to be scored.
TEST(Blocks, GiveTheScoresTheSameBits) {
  gv::myid = 0;
  gv::numprocs = 1;
  std::vector<double> information, scores;
  int evaluations = 0;
  for (const bool together : {false, true}) {
    test::score_problem problem;
    problem.weights.clear();
    problem.samples.clear();
    for (int k = 1; k <= 600; ++k) {
      problem.weights.push_back(k % 7 == 0 ? 1e-11 : 1.0 / (3.0 * k));
      for (int e = 0; e < 3; ++e) problem.samples.push_back(0.1 * ((7 * k + 5 * e) % 19) - 0.93);
    }
    if (together) problem.host.evaluate_together();
    problem.score();
    if (together) {
      EXPECT_EQ(problem.information, information);
      EXPECT_EQ(problem.scores, scores);
      EXPECT_EQ(problem.evaluations, evaluations);
      // 515 samples are heavy enough: as they are, and two fixed effects twice.
      EXPECT_THAT(problem.host.together,
                  ElementsAre(256, 256, 256, 256, 256, 256, 256, 256, 256, 256, 3, 3, 3, 3, 3));
    }
    information = problem.information;
    scores = problem.scores;
    evaluations = problem.evaluations;
  }
}

// A host that fills a part of what it is asked for has failed in the rest.
TEST(Blocks, CountWhatIsNotWrittenAsFailed) {
  failing_problem problem(true);
  problem.host.table().fcnxetas = [](const int&, const int& n, const double*, double* f,
                                     double* z) {
    for (int i = 0; i < n / 2; ++i) {
      f[i] = 0.0;
      z[i] = 1.0;
    }
  };
  gv::impsampdof = 0;
  const estep_results r = test::run_estep(8);
  for (std::size_t j = 0; j < 8; ++j) EXPECT_EQ(r.weights[j] > 0.0, j < 4) << j;
}

}  // namespace
}  // namespace statsubs
