// SPDX-License-Identifier: Apache-2.0
//
// Comparisons of results that are made up: figures worked out by hand, p-values by closed forms of
// the chi-square distribution.
#include "varda/comparison/compare.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cmath>

#include "varda/report/comparison_report.h"
#include "varda/version.h"

namespace varda {
namespace {

// Two subjects with observations and one without; their likelihoods are known but for the shares.
stored_fit run(const std::string& name, double minus2ll, int estimated,
               const std::vector<double>& shares) {
  stored_fit r;
  r.folder = name;
  r.about.task = "fit";
  r.about.observations_sha256 = "y";
  r.about.doses_sha256 = "d";
  r.subjects = 3;
  r.observations = 20;
  r.converged = true;
  r.reason = "made up";
  r.minus2ll = minus2ll;
  r.mc_se = 0.25;
  r.estimated = estimated;
  r.aic = minus2ll + 2.0 * estimated;
  r.bic_observations = minus2ll + 3.0 * estimated;
  r.bic_subjects = minus2ll + 0.5 * estimated;
  std::vector<double> replicates;
  for (const double share : shares) replicates.push_back(0.5 * minus2ll - 2.0 * std::log(share));
  r.by_subject = {{"1", 10, replicates, {}, {}},
                  {"2", 0, {0.0, 0.0}, {}, {}},
                  {"3", 10, std::vector<double>(shares.size(), 0.5 * minus2ll), {}, {}}};
  r.quantities = {{"CL", 3.0, false, 12.5}, {"V", 20.0, true, {}}};
  return r;
}

TEST(Compare, TheErrorOfADifferenceIsFromThePairsOfReplicates) {
  // Of the two shares 1.1 and 0.9 the mean is 1: excesses of 0.1, whose mean has the variance
  // 2 x 0.01 / (2 x 1); and -2 log-likelihood has four times that.
  const auto error = [](const std::vector<double>& a, const std::vector<double>& b) {
    const comparison c = compare({run("a", 100.0, 3, a), run("b", 90.0, 5, b)}, false);
    return *c.groups.front().differences[1];
  };
  EXPECT_NEAR(error({1.0, 1.0}, {1.1, 0.9}).mc_se, 0.2, 1e-13);
  EXPECT_NEAR(error({1.1, 0.9}, {1.1, 0.9}).mc_se, 0.0, 1e-13) << "common points";
  EXPECT_NEAR(error({0.9, 1.1}, {1.1, 0.9}).mc_se, 0.4, 1e-13);
  EXPECT_FALSE(error({1.0, 1.0, 1.0}, {1.1, 0.9}).paired);
  EXPECT_NEAR(error({1.0, 1.0, 1.0}, {1.1, 0.9}).mc_se, std::hypot(0.25, 0.25), 1e-13);
  const run_difference d = error({1.0, 1.0}, {1.0, 1.0});
  EXPECT_EQ(d.minus2ll, -10.0);
  EXPECT_EQ(d.estimated, 2);
  EXPECT_NEAR(d.aic, -6.0, 1e-12);
  EXPECT_NEAR(d.bic_observations, -4.0, 1e-12);
  EXPECT_NEAR(d.bic_subjects, -9.0, 1e-12);
}

TEST(Compare, RunsOnOtherObservationsStandApart) {
  stored_fit fewer = run("fewer", 50.0, 3, {1.0, 1.0});
  fewer.observations = 19;
  fewer.about.observations_sha256 = "z";
  stored_fit changed = run("changed", 51.0, 3, {1.0, 1.0});
  changed.about.observations_sha256 = "w";
  stored_fit doses = run("doses", 52.0, 3, {1.0, 1.0});
  doses.about.doses_sha256 = "e";
  stored_fit also_fewer = fewer;
  const comparison c = compare(
      {run("a", 100.0, 3, {1.0, 1.0}), fewer, changed, doses, also_fewer, run("b", 9, 4, {1, 1})},
      true);
  ASSERT_EQ(c.groups.size(), 4U);
  EXPECT_THAT(c.groups[0].runs, testing::ElementsAre(0, 5));
  EXPECT_THAT(c.groups[1].runs, testing::ElementsAre(1, 4));
  EXPECT_EQ(c.groups[1].apart, "different observations: 19 instead of 20");
  EXPECT_EQ(c.groups[2].apart, "different observations, the same number of them");
  EXPECT_EQ(c.groups[3].apart, "the same observations after different doses");
  EXPECT_EQ(c.groups[0].tests.size(), 1U);
}

TEST(Compare, LikelihoodRatioTests) {
  // Two more quantities: the upper tail of chi-square is exp(-x / 2). One: erfc(sqrt(x / 2)).
  const stored_fit small = run("small", 100.0, 3, {1.0, 1.0});
  stored_fit large = run("large", 94.0, 5, {1.1, 0.9});
  large.quantities.push_back({"omega(V,V)", 0.1, false, 30.0});
  large.quantities.push_back({"omega(V,CL)", 0.05, false, 30.0});
  large.omega_names = {"omega(V,V)", "omega(V,CL)"};
  // The smaller model is the first, or not.
  for (const bool swap : {false, true}) {
    const comparison c = swap ? compare({large, small}, true) : compare({small, large}, true);
    const ratio_test& t = c.groups.front().tests.at(0);
    EXPECT_EQ(c.runs[static_cast<std::size_t>(t.smaller)].folder, "small");
    EXPECT_EQ(t.degrees_of_freedom, 2);
    EXPECT_NEAR(t.statistic, 6.0, 1e-12);
    EXPECT_NEAR(t.p, std::exp(-3.0), 1e-14);
    EXPECT_NEAR(t.p_least, std::exp(-3.0 - 0.98 * 0.2), 1e-14);
    EXPECT_NEAR(t.p_most, std::exp(-3.0 + 0.98 * 0.2), 1e-14);
    EXPECT_THAT(t.on_boundary, testing::ElementsAre("omega(V,V)"));
    EXPECT_NEAR(t.p_mixture.value(), 0.5 * (std::exp(-3.0) + std::erfc(std::sqrt(3.0))), 1e-14);
  }
  // A residual deviation is on its boundary as well; with two such quantities there is no mixture.
  large.quantities.push_back({"plasma.additive", 0.1, false, 30.0});
  const ratio_test both = compare({small, large}, true).groups.front().tests.at(0);
  EXPECT_EQ(both.on_boundary.size(), 2U);
  EXPECT_FALSE(both.p_mixture);
  // A covariate effect is not.
  stored_fit covariate = run("covariate", 94.0, 4, {1.0, 1.0});
  covariate.quantities.push_back({"CL_WT", 0.7, false, 10.0});
  EXPECT_TRUE(compare({small, covariate}, true).groups.front().tests.at(0).on_boundary.empty());
}

TEST(Compare, TheWholeText) {
  stored_fit unfinished = run("models/with-a-long-name", 94.0, 4, {1.1, 0.9});
  unfinished.converged = false;
  unfinished.quantities = {{"CL", 3.25, false, 10.0}, {"CL_WT", 0.75, false, {}}};
  stored_fit stopped = run("stopped", 0.0, 4, {1.0, 1.0});
  stopped.minus2ll.reset();
  stopped.converged = false;
  stopped.reason = "stopped on request";
  stored_fit other = run("other", 50.0, 3, {1.0, 1.0});
  other.about.observations_sha256 = "z";
  const std::string text = comparison_text(
      compare({run("base", 100.0, 3, {1.0, 1.0}), unfinished, stopped, other}, true));
  EXPECT_EQ(text, std::string("varda ") + version + R"(  comparison of 4 runs

20 observations of 3 subjects
Run                      -2LL MC error  est.       AIC  BIC obs. BIC subj.
  base               100.0000   0.2500     3   106.000   109.000   101.500
  models/with-a-long-name *
                      94.0000   0.2500     4   102.000   106.000    96.000
  stopped *           unknown
  * not converged, so not at a maximum

Difference from base
  models/with-a-long-name *
                      -6.0000   0.2000    +1    -4.000    -3.000    -5.500
  stopped *           unknown

Likelihood-ratio tests, assuming that the models are nested
  base within models/with-a-long-name: chi-square 6.0000 (Monte Carlo error
    0.2000), 1 degree of freedom, p = 0.0143 (0.0115 to 0.0179 within 1.96 Monte
    Carlo errors). The test is not valid: a run has not converged.

Estimate (RSE)                     base ...with-a-long-name             stopped
  CL                         3 (12.5 %)       3.25 (10.0 %)          3 (12.5 %)
  V                         20  (fixed)                   -         20  (fixed)
  CL_WT                               -       0.75                            -

Verdicts
  base: converged; made up
  models/with-a-long-name: NOT CONVERGED; made up
  stopped: NOT CONVERGED; stopped on request

NOT COMPARABLE WITH THE ABOVE: different observations, the same number of them

20 observations of 3 subjects
Run                      -2LL MC error  est.       AIC  BIC obs. BIC subj.
  other               50.0000   0.2500     3    56.000    59.000    51.500

Estimate (RSE)                    other
  CL                         3 (12.5 %)
  V                         20  (fixed)

Verdicts
  other: converged; made up
)");
}

}  // namespace
}  // namespace varda
