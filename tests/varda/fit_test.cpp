// SPDX-License-Identifier: Apache-2.0
//
// The engine against exact results (tests/varda/reference) and, where there are none, against its
// own exact likelihood: estimates must be a maximum of it in every direction.
#include "varda/run/fit.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cmath>

#include "tests/support/fake_host.h"
#include "tests/varda/theophylline.h"

namespace {

using test::minus2ll;
using varda::model_specification;
using varda::population_model;

constexpr double exact_minimum = 118.1009;     // additive error, without the constant
constexpr double combined_minimum = 104.5026;  // combined error: 347.10238 - 132 log(2 pi)

void set_round_parameters(model_specification& file) {
  test::set_parameters(file, {1.58, 2.75, 31.6}, {0.40, 0.07, 0.0185}, 0.70);
}

// The exact -2 log-likelihood at a result's estimates, with `theta[k]` scaled by `factor`.
double exact_at(const population_model& model, const varda::fit_result& result, Eigen::Index k,
                double factor) {
  varda::fit_result moved = result;
  moved.theta(k) *= factor;
  const population_model at = test::theophylline([&](model_specification& file) {
    file = model.specification();
    test::start_at(file, model, moved);
    file.estimation.likelihood_samples = 1200;
    file.estimation.replicates = 2;
    file.estimation.proposal = varda::proposal_family::normal;
    file.estimation.points = varda::point_kind::sobol;
  });
  return minus2ll(test::evaluate(at));
}

// A move of 5 % in any free fixed effect, either way, makes the exact likelihood worse, or better
// by less than the sampling error of the fit can explain. The points are the same for every value,
// so that their error cancels from the differences.
void expect_maximum(const population_model& model, const varda::fit_result& result) {
  const double here = exact_at(model, result, 0, 1.0);
  for (std::size_t k = 0; k < model.thetas().size(); ++k) {
    if (model.thetas()[k].fixed) continue;
    for (const double factor : {0.95, 1.05})
      EXPECT_GT(exact_at(model, result, static_cast<Eigen::Index>(k), factor), here - 0.01)
          << model.thetas()[k].name << " x " << factor;
  }
}

TEST(Evaluate, MatchesQuadratureForEverySubject) {
  const auto exact = test::reference("theophylline-round.csv");
  for (const int seed : {1, 2, 3}) {
    const population_model model = test::theophylline([&](model_specification& file) {
      set_round_parameters(file);
      file.estimation.samples = 3000;
      file.estimation.seed = seed;
    });
    const varda::fit_result result = test::evaluate(model);
    EXPECT_TRUE(result.converged);
    for (int i = 0; i < model.subjects(); ++i) {
      const auto at = static_cast<std::size_t>(i);
      EXPECT_NEAR(-2.0 * result.likelihood.subjects[at].log_likelihood -
                      model.observations(i) * std::log(2.0 * M_PI),
                  exact.at(model.data().subjects[at].id)[0], 0.01);
    }
    EXPECT_NEAR(minus2ll(result), 118.1086, 0.02);
  }
}

// One node is Laplace's approximation, 31 are exact; both beside the sampled value.
TEST(Evaluate, QuadratureMatchesTheReferencesForEverySubject) {
  const auto reference = test::reference("theophylline-round.csv");
  for (const int nodes : {1, 31}) {
    const population_model model = test::theophylline([&](model_specification& file) {
      set_round_parameters(file);
      file.estimation.likelihood = varda::likelihood_kind::agq;
      file.estimation.agq_nodes = nodes;
    });
    const varda::fit_result result = test::evaluate(model);
    ASSERT_TRUE(result.quadrature.complete);
    EXPECT_TRUE(result.quadrature.placed_by_omega.empty());
    double sum = 0.0;
    for (int i = 0; i < model.subjects(); ++i) {
      const double minus2ll = -2.0 * result.quadrature.log_likelihoods[static_cast<std::size_t>(i)];
      EXPECT_NEAR(minus2ll - model.observations(i) * std::log(2.0 * M_PI),
                  reference.at(model.data().subjects[static_cast<std::size_t>(i)].id)[nodes == 1],
                  2e-6);
      sum += minus2ll;
    }
    EXPECT_DOUBLE_EQ(result.quadrature.minus2ll, sum);
    EXPECT_EQ(std::fabs(result.objective.difference_in_mc_se) > 3.0, nodes == 1);
  }
}

TEST(Evaluate, FindsTheConditionalMoments) {
  const auto maximum = test::reference("theophylline-additive.csv");
  const auto exact = test::reference("theophylline-additive-subjects.csv");
  const population_model model = test::theophylline([&](model_specification& file) {
    test::set_parameters(
        file,
        {std::exp(maximum.at("lka")[0]), std::exp(maximum.at("lCL")[0]),
         std::exp(maximum.at("lV")[0])},
        {maximum.at("om2(lka)")[0], maximum.at("om2(lCL)")[0], maximum.at("om2(lV)")[0]},
        maximum.at("sd_add")[0]);
    file.estimation.samples = 3000;
  });
  const varda::fit_result result = test::evaluate(model);
  for (int i = 0; i < model.subjects(); ++i) {
    const auto& s = result.likelihood.subjects[static_cast<std::size_t>(i)];
    const auto& row = exact.at(model.data().subjects[static_cast<std::size_t>(i)].id);
    const Eigen::Vector3d deviation = s.covariance.diagonal().cwiseSqrt();
    // What weights with a sum of 1 allow; no subject of these is a hard one.
    EXPECT_GT(s.effective_samples, 300.0);
    EXPECT_LT(s.effective_samples, 3000.0);
    EXPECT_GT(s.largest_weight, 1.0 / s.effective_samples);
    EXPECT_LT(s.largest_weight, 0.1);
    for (int e = 0; e < 3; ++e) {
      EXPECT_NEAR(s.mean(e), row[static_cast<std::size_t>(4 + e)], 0.01 * deviation(e));
      const std::size_t variance = e == 0 ? 7 : e == 1 ? 9 : 12;
      // The posterior of subject 9 has a longer tail than its proposal.
      EXPECT_NEAR(s.covariance(e, e) / row[variance], 1.0, 0.05);
    }
  }
}

TEST(Fit, ReachesTheMaximumOfTheLikelihood) {
  const auto exact = test::reference("theophylline-additive.csv");
  const std::vector<double> estimates = {std::exp(exact.at("lka")[0]), std::exp(exact.at("lCL")[0]),
                                         std::exp(exact.at("lV")[0]), exact.at("sd_add")[0]};
  for (const int seed : {1, 4, 9}) {
    const population_model model =
        test::theophylline([&](model_specification& file) { file.estimation.seed = seed; });
    const varda::fit_result result = test::fit(model);
    EXPECT_TRUE(result.converged) << result.reason;
    for (std::size_t k = 0; k < estimates.size(); ++k)
      EXPECT_NEAR(result.theta(static_cast<Eigen::Index>(k)) / estimates[k], 1.0, 0.005);
    EXPECT_NEAR(result.omega(0, 0) / exact.at("om2(lka)")[0], 1.0, 0.02);
    EXPECT_NEAR(result.omega(1, 1) / exact.at("om2(lCL)")[0], 1.0, 0.02);
    EXPECT_NEAR(result.omega(2, 2) / exact.at("om2(lV)")[0], 1.0, 0.02);
    EXPECT_NEAR(minus2ll(result), exact_minimum, 0.03);
    EXPECT_LT(std::fabs(minus2ll(result) - exact_minimum), 3.0 * result.likelihood.mc_se);
  }
}

struct variant {
  const char* name;
  std::function<void(model_specification&)> change;
};

std::string name_of(const testing::TestParamInfo<variant>& info) {
  return info.param.name;
}

class FitBySampling : public testing::TestWithParam<variant> {};

TEST_P(FitBySampling, EndsNearTheMaximum) {
  const population_model model = test::theophylline(GetParam().change);
  const varda::fit_result result = test::fit(model);
  EXPECT_TRUE(result.converged) << result.reason;
  EXPECT_LT(exact_at(model, result, 0, 1.0), exact_minimum + 0.1);
}

INSTANTIATE_TEST_SUITE_P(
    EveryKind, FitBySampling,
    testing::Values(
        variant{"t",
                [](model_specification& f) { f.estimation.proposal = varda::proposal_family::t; }},
        variant{"laplace",
                [](model_specification& f) {
                  f.estimation.proposal = varda::proposal_family::laplace;
                }},
        variant{"mixture2",
                [](model_specification& f) {
                  f.estimation.proposal = varda::proposal_family::mixture2;
                }},
        variant{"mixture3",
                [](model_specification& f) {
                  f.estimation.proposal = varda::proposal_family::mixture3;
                }},
        variant{"population",
                [](model_specification& f) {
                  f.estimation.proposal = varda::proposal_family::population;
                }},
        variant{"random",
                [](model_specification& f) { f.estimation.points = varda::point_kind::random; }},
        variant{"fresh", [](model_specification& f) { f.estimation.fresh_points = true; }},
        variant{"scrambled_twice", [](model_specification& f) { f.estimation.scramble = 3; }}),
    name_of);

TEST(Fit, CombinedErrorReachesItsMaximum) {
  const auto exact = test::reference("theophylline-combined.csv");
  const population_model model = test::theophylline([](model_specification& file) {
    file.endpoints.front().residual = {varda::error_kind::combined, 0.5, 0.2, false, false};
  });
  const varda::fit_result result = test::fit(model);
  EXPECT_TRUE(result.converged) << result.reason;
  EXPECT_NEAR(exact_at(model, result, 0, 1.0), combined_minimum, 0.05);
  EXPECT_NEAR(std::log(result.theta(0)), exact.at("lka")[0], 0.01);
  EXPECT_NEAR(std::log(result.theta(1)), exact.at("lCL")[0], 0.01);
  EXPECT_NEAR(std::log(result.theta(2)), exact.at("lV")[0], 0.01);
  EXPECT_NEAR(result.theta(3) / exact.at("sd_prop")[0], 1.0, 0.05);
  EXPECT_NEAR(result.theta(4) / exact.at("sd_add")[0], 1.0, 0.05);
}

// bench/residual_errors.R: -2 log-likelihoods of quadrature with 21 nodes, its maximum and
// estimates.
struct other_error {
  const char* name;
  varda::residual_error start;
  double minus2ll_at_start;
  double minimum;
  std::vector<double> estimates;  // ka, CL, V, variances, deviation
};

class FitOfAnotherError : public testing::TestWithParam<other_error> {};

TEST_P(FitOfAnotherError, ReachesTheMaximumByEitherMethod) {
  const other_error& exact = GetParam();
  const auto start_at_round_values = [&](model_specification& file) {
    test::set_parameters(file, {1.5, 2.75, 31.8}, {0.4, 0.07, 0.017}, 0.0);
    file.endpoints.front().residual = exact.start;
    file.estimation.npde_samples = 0;
    if (exact.start.lambda != 0.0) file.data.drop = "EVID == 0 && TIME == 0";
  };
  const population_model model = test::theophylline(start_at_round_values);
  const double constant = model.data().observations() * std::log(2.0 * M_PI);
  EXPECT_NEAR(minus2ll(test::evaluate(model)) + constant, exact.minus2ll_at_start, 0.03);
  for (const auto method : {varda::method_kind::newton, varda::method_kind::em}) {
    const varda::fit_result result = test::fit(test::theophylline([&](model_specification& file) {
      start_at_round_values(file);
      file.endpoints.front().residual.additive *= 1.5;
      file.estimation.method = method;
    }));
    EXPECT_TRUE(result.converged) << result.reason;
    EXPECT_NEAR(minus2ll(result) + constant, exact.minimum, 0.05);
    for (Eigen::Index k = 0; k < 3; ++k) {
      const auto at = static_cast<std::size_t>(k);
      EXPECT_NEAR(result.theta(k) / exact.estimates[at], 1.0, 0.01) << k;
      EXPECT_NEAR(result.omega(k, k) / exact.estimates[3 + at], 1.0, 0.05) << k;
    }
    EXPECT_NEAR(result.theta(3) / exact.estimates[6], 1.0, 0.01);
  }
}

INSTANTIATE_TEST_SUITE_P(
    Errors, FitOfAnotherError,
    testing::Values(
        other_error{
            "student",
            {varda::error_kind::additive, 0.5, 0.0, false, false, 0.0, false, 4.0},
            325.7893,
            314.9309,
            {1.72880558, 2.71264664, 32.40768629, 0.54035803, 0.07047633, 0.02141768, 0.34909386}},
        other_error{
            "box_cox",
            {varda::error_kind::box_cox, 0.4, 0.0, false, false, 0.0, false, 0.0, 0.5},
            348.3284,
            344.6755,
            {1.44854783, 2.74151408, 31.58262722, 0.39645990, 0.06387823, 0.01612887, 0.34424305}}),
    [](const testing::TestParamInfo<other_error>& of) { return std::string(of.param.name); });

TEST(Fit, ABoundHoldsItsParameterAndTheRestFollows) {
  const population_model bounded = test::theophylline([](model_specification& file) {
    file.parameters[2].start = 29.0;
    file.parameters[2].upper = 30.0;
  });
  const population_model fixed = test::theophylline([](model_specification& file) {
    file.parameters[2].start = 30.0;
    file.parameters[2].fixed = true;
  });
  const varda::fit_result held = test::fit(bounded);
  const varda::fit_result given = test::fit(fixed);
  EXPECT_THAT(held.held_by_bounds, testing::ElementsAre(2));
  EXPECT_TRUE(given.held_by_bounds.empty());
  EXPECT_EQ(held.theta(2), 30.0);
  EXPECT_TRUE(held.converged);
  for (const int k : {0, 1, 3}) EXPECT_NEAR(held.theta(k) / given.theta(k), 1.0, 2e-3);
  for (int e = 0; e < 3; ++e) EXPECT_NEAR(held.omega(e, e) / given.omega(e, e), 1.0, 0.03);
}

class FitOfAVariant : public testing::TestWithParam<variant> {};

TEST_P(FitOfAVariant, IsAMaximumOfTheExactLikelihood) {
  const population_model model = test::theophylline(GetParam().change);
  const varda::fit_result result = test::fit(model);
  EXPECT_TRUE(result.converged) << result.reason;
  expect_maximum(model, result);
}

INSTANTIATE_TEST_SUITE_P(
    Variants, FitOfAVariant,
    testing::Values(
        // A parameter without a random effect.
        variant{"flat_parameter",
                [](model_specification& f) {
                  f.parameters[0].law = varda::distribution::none;
                  f.omega.erase(f.omega.begin());
                }},
        // Weight on clearance and volume, one coefficient given.
        variant{
            "covariates",
            [](model_specification& f) {
              f.data.covariates = {"WT"};
              f.parameters[1].effects.push_back(
                  {.name = "CL_WT", .covariate = "WT", .center = 70.0});
              f.parameters[2].effects.push_back(
                  {.name = "V_WT", .covariate = "WT", .center = 70.0, .start = 1.0, .fixed = true});
            }},
        // A normal and a logit-normal parameter, the latter with an effect on the logit.
        variant{"other_distributions",
                [](model_specification& f) {
                  f.data.covariates = {"WT"};
                  f.parameters[2].law = varda::distribution::normal;
                  f.omega[2].matrix = {30.0};
                  f.parameters[1].law = varda::distribution::logit_normal;
                  f.parameters[1].range_upper = 10.0;
                  f.parameters[1].effects.push_back({.name = "CL_WT",
                                                     .covariate = "WT",
                                                     .form = varda::effect_form::linear,
                                                     .center = 70.0});
                }},
        // Correlated random effects beside a fixed variance.
        variant{"block_of_omega",
                [](model_specification& f) {
                  f.omega = {{{"ka", "CL"}, {0.3, 0.02, 0.02, 0.1}, false}, {{"V"}, {0.02}, true}};
                }},
        // A combined error whose additive part is given.
        variant{
            "given_additive_part",
            [](model_specification& f) {
              f.endpoints.front().residual = {varda::error_kind::combined, 0.25, 0.2, true, false};
            }}),
    name_of);

void correlate(model_specification& f, double ka_CL, double ka_V, double CL_V) {
  f.omega = {{{"ka", "CL", "V"}, {0.4, ka_CL, ka_V, ka_CL, 0.07, CL_V, ka_V, CL_V, 0.0185}, false}};
}

// The likelihood rises towards an omega in which CL and V are fully correlated; its supremum is
// from Newton steps on adaptive quadrature along that edge.
TEST(Singularity, AFullOmegaThatTheDataDoNotSupportIsNamed) {
  const population_model model =
      test::theophylline([](model_specification& f) { correlate(f, 0.0, 0.0, 0.0); });
  const varda::fit_result result = test::fit(model);
  EXPECT_FALSE(result.converged);
  EXPECT_THAT(result.singular, testing::ElementsAre("corr(CL,V)"));
  EXPECT_TRUE(result.errors.chosen().empty());
  EXPECT_NEAR(minus2ll(result), 106.5506, 0.2);
}

TEST(Singularity, SubjectsThatAreAllAlikeHaveNoVariance) {
  const population_model whole = test::theophylline();
  varda::dataset alike = whole.data();
  for (varda::subject& who : alike.subjects) {
    const std::string id = who.id;
    who = alike.subjects.front();
    who.id = id;
  }
  const varda::fit_result result = test::fit({whole.specification(), alike});
  EXPECT_FALSE(result.converged);
  EXPECT_THAT(result.singular, testing::IsSupersetOf({"omega(ka)", "omega(CL)"}));
}

// 0.9 between CL and V.
TEST(Singularity, AStrongCorrelationThatTheDataSupportIsNone) {
  const population_model truth = test::theophylline([](model_specification& f) {
    correlate(f, 0.0, 0.0, 0.0324);
    f.endpoints.front().residual.additive = 0.3;
  });
  const varda::fit_result result = test::fit(test::simulated(truth, 8, 5));
  EXPECT_TRUE(result.converged) << result.reason;
  EXPECT_TRUE(result.singular.empty());
}

// Relative errors of all estimates of a kind against the reference's column.
void expect_errors(const std::vector<varda::estimate_error>& errors, const char* kind,
                   std::size_t column) {
  const auto exact = test::reference("theophylline-additive.csv");
  const char* rows[] = {"lka", "lCL", "lV", "sd_add", "om2(lka)", "om2(lCL)", "om2(lV)"};
  ASSERT_EQ(errors.size(), 7U);
  for (std::size_t k = 0; k < 7; ++k) {
    // The reference's errors of log parameters are relative.
    const double se = k < 3 ? errors[k].rse_percent / 100.0 : errors[k].se;
    EXPECT_NEAR(se / exact.at(rows[k])[column], 1.0, 0.03) << kind << " " << rows[k];
  }
}

TEST(StandardErrors, MatchTheExactOnesOfEveryKind) {
  const population_model model = test::theophylline();
  const varda::fit_result result = test::fit(model);
  expect_errors(result.errors.by_information, "information", 1);
  expect_errors(result.errors.by_score, "score", 2);
  expect_errors(result.errors.by_sandwich, "sandwich", 3);
  EXPECT_THAT(result.warnings, testing::IsEmpty());
  EXPECT_NEAR(result.errors.eigenvalues.sum(), 7.0, 1e-10);
}

// Twelve subjects: factors up to exp(3 / sqrt(12)) = 2.378 are left to chance.
TEST(StandardErrors, WarnOfFactorsThatChanceDoesNotExplain) {
  const population_model model = test::theophylline();
  const varda::job alone(nullptr, nullptr);
  varda::engine_host host(model, alone);
  varda::sampled_errors found;
  found.information = {true, "", 0.01 * Eigen::MatrixXd::Identity(7, 7)};
  found.known.assign(7, 1);
  const auto warning = [&](double factor_of_V) {
    Eigen::VectorXd squares = Eigen::VectorXd::Ones(7);
    squares(2) = factor_of_V * factor_of_V;
    found.scores = 100.0 * Eigen::MatrixXd(squares.asDiagonal());
    const varda::findings warnings = varda::errors_from(host, found).warnings;
    return warnings.empty() ? std::string() : warnings.front().message;
  };
  EXPECT_EQ(warning(2.37), "");
  EXPECT_EQ(warning(1.0 / 2.37), "");
  EXPECT_THAT(warning(2.39), testing::EndsWith(": V (2.4)"));
  EXPECT_THAT(warning(0.41), testing::EndsWith(": V (0.41)"));
}

TEST(StandardErrors, TooFewSubjectsForScores) {
  population_model whole = test::theophylline();
  varda::dataset few = whole.data();
  few.subjects.resize(7);
  const population_model model(whole.specification(), few);
  const varda::fit_result result = test::fit(model);
  EXPECT_FALSE(result.errors.score.known);
  EXPECT_TRUE(result.errors.by_score.empty());
  EXPECT_THAT(result.errors.score.reason, testing::HasSubstr("7 subjects"));
  EXPECT_EQ(result.errors.by_information.size(), 7U);
}

TEST(StandardErrors, NoneForAParameterAtItsBound) {
  test::captured_unit output;
  const population_model model = test::theophylline([](model_specification& file) {
    file.parameters[2].start = 29.0;
    file.parameters[2].upper = 30.0;
  });
  const varda::fit_result result = test::fit(model, false);
  EXPECT_TRUE(result.errors.chosen().empty());
  EXPECT_EQ(result.errors.reason, "a parameter is at its bound");
  EXPECT_TRUE(result.converged);
  EXPECT_THAT(output.lines(), testing::Contains(" Warning: parameter value near bound"));
  EXPECT_THAT(output.lines(),
              testing::Contains("    3      0.0000E+00      0.3000E+02      0.3000E+02"));
}

// Two parameters without a random effect that only matter through their sum would be needed for a
// flat likelihood; an effect of a covariate that is almost the same for all subjects comes near.
TEST(StandardErrors, NameADirectionThatIsNotIdentified) {
  population_model whole = test::theophylline();
  varda::dataset data = whole.data();
  data.covariate_names = {"WT"};
  data.covariate_varies = {false};
  for (std::size_t i = 0; i < data.subjects.size(); ++i)
    data.subjects[i].segments.front().covariates = {1.0 + 1e-3 * static_cast<double>(i % 3)};
  varda::model_specification file = whole.specification();
  file.data.covariates = {"WT"};
  file.parameters[1].effects.push_back(
      {.name = "CL_WT", .covariate = "WT", .form = varda::effect_form::exponential, .center = 0.0});

  const population_model model(file, data);
  const varda::fit_result result = test::fit(model);
  EXPECT_GT(result.errors.condition_number, 1e6) << result.errors.reason << result.reason;
  EXPECT_THAT(result.errors.unidentified,
              testing::AllOf(testing::HasSubstr("CL"), testing::HasSubstr("CL_WT")));
}

TEST(Startup, EndsAtTheSameMaximum) {
  for (const int rounds : {1, 3}) {
    const population_model model =
        test::theophylline([&](model_specification& file) { file.estimation.map_np = rounds; });
    const varda::fit_result result = test::fit(model);
    EXPECT_TRUE(result.converged);
    EXPECT_LT(exact_at(model, result, 0, 1.0), exact_minimum + 0.03);
  }
  const population_model assisted =
      test::theophylline([](model_specification& file) { file.estimation.map_assist = 4; });
  EXPECT_LT(exact_at(assisted, test::fit(assisted), 0, 1.0), exact_minimum + 0.03);
}

// The count of evaluations leaves no room for a search of modes: with the samples, 64 or 300 an
// iteration and 256 a replicate, one at every proposal's mean.
TEST(Startup, PresamplingAloneEndsAtTheSameMaximum) {
  for (const int presamples : {30, 300}) {
    const population_model model = test::theophylline([&](model_specification& file) {
      file.estimation.method = varda::method_kind::em;
      file.estimation.start = varda::start_kind::presample;
      file.estimation.presamples = presamples;
      file.estimation.standard_errors = varda::standard_error_kind::none;
      file.estimation.seed = 8;
    });
    const varda::fit_result result = test::fit(model);
    EXPECT_TRUE(result.converged) << result.reason;
    EXPECT_LT(exact_at(model, result, 0, 1.0), exact_minimum + 0.01);
  }
}

TEST(Fit, FreezingOmegaLeavesItAloneDuringBurnIn) {
  const population_model model = test::theophylline([](model_specification& file) {
    file.estimation.method = varda::method_kind::em;
    file.estimation.burn_in = 3;
    file.estimation.freeze_omega = true;
    file.estimation.max_iterations = 4;
  });
  const varda::fit_result result = test::fit(model);
  ASSERT_EQ(result.iterations.size(), 4U);
  EXPECT_EQ(result.iterations[2].omega, model.start_omega());
  EXPECT_NE(result.iterations[3].omega, model.start_omega());
  EXPECT_FALSE(result.converged);
}

TEST(Fit, SaysWhatStillMovesWhenItRunsOutOfIterations) {
  const population_model model = test::theophylline([](model_specification& file) {
    file.omega = {{{"ka", "CL", "V"}, {0.3, 0, 0, 0, 0.3, 0, 0, 0, 0.3}, false}};
    file.estimation.method = varda::method_kind::em;
    file.estimation.max_iterations = 30;
  });
  const varda::fit_result result = test::fit(model);
  EXPECT_FALSE(result.converged);
  EXPECT_THAT(result.reason, testing::HasSubstr("corr(CL,V)"));
}

TEST(Fit, AStopRequestEndsTheRunInOrder) {
  const population_model model = test::theophylline();
  const varda::job job(nullptr, nullptr);
  varda::engine_host host(model, job);
  const varda::fit_result result = varda::fit(host, [](const varda::run_progress& at) {
    if (at.step == 2) varda::engine_host::request_stop();
  });
  EXPECT_FALSE(result.converged);
  EXPECT_EQ(result.reason, "stopped on request");
  EXPECT_EQ(result.iterations.size(), 2U);
  EXPECT_EQ(result.theta, result.iterations.back().theta);
  EXPECT_FALSE(result.likelihood.complete);
}

}  // namespace
