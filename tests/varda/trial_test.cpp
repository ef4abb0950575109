// SPDX-License-Identifier: Apache-2.0
//
// Model files and data sets of the kinds that trials bring, from the file to the estimates: against
// exact results where there are any, closed forms, and the engine's own quadrature.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <Eigen/Cholesky>
#include <array>
#include <cmath>
#include <numbers>

#include "tests/varda/theophylline.h"
#include "varda/inference/quadrature.h"
#include "varda/input/model_file.h"

namespace {

using varda::fit_result;
using varda::model_specification;
using varda::population_model;

population_model model_of(
    const std::string& path,
    const std::function<void(model_specification&)>& change = [](model_specification&) {}) {
  varda::findings warnings;
  model_specification file = varda::read_model_file(SOURCE_FOLDER "/" + path, warnings);
  change(file);
  varda::dataset data = varda::read_dataset(file.data, warnings);
  return {std::move(file), std::move(data)};
}

// -2 log-likelihood at a result's estimates by quadrature.
double exact_at(const population_model& model, const fit_result& result, int nodes) {
  const population_model at(
      [&] {
        model_specification file = model.specification();
        test::start_at(file, model, result);
        file.estimation.likelihood = varda::likelihood_kind::agq;
        file.estimation.agq_nodes = nodes;
        return file;
      }(),
      model.data());
  return test::evaluate(at).quadrature.minus2ll;
}

// Estimates within 1 %, their errors from the observed information within 5 %.
void expect_fixed_effects(const population_model& model, const fit_result& result,
                          const std::string& reference, const std::vector<std::string>& rows) {
  const auto exact = test::reference(reference);
  for (std::size_t k = 0; k < rows.size(); ++k) {
    const auto& [estimate, se] = std::pair(exact.at(rows[k])[0], exact.at(rows[k])[1]);
    const bool logarithm = rows[k][0] == 'l';
    const auto at = static_cast<Eigen::Index>(k);
    EXPECT_NEAR(result.theta(at) / (logarithm ? std::exp(estimate) : estimate), 1.0, 0.01)
        << rows[k];
    const varda::estimate_error& error = result.errors.by_information.at(
        static_cast<std::size_t>(result.errors.place_of_theta(static_cast<int>(k))));
    EXPECT_NEAR((logarithm ? error.rse_percent / 100.0 : error.se) / se, 1.0, 0.08) << rows[k];
  }
  EXPECT_EQ(model.thetas().size(), rows.size());
}

TEST(Trial, IndomethacinReachesItsMaximum) {
  const population_model model = model_of("examples/indomethacin/indomethacin.toml");
  const fit_result result = test::fit(model);
  expect_fixed_effects(model, result, "indomethacin-proportional.csv",
                       {"lCL", "lV1", "lQ", "lV2", "sd_prop"});
  EXPECT_NEAR(exact_at(model, result, 15), -177.31379356, 0.05);
}

TEST(Trial, CombinedErrorReachesItsMaximum) {
  const population_model model = test::theophylline([](model_specification& file) {
    file.endpoints.front().residual = {varda::error_kind::combined, 0.5, 0.2, false, false};
    file.estimation.resamples = 300;
  });
  const fit_result result = test::fit(model);
  EXPECT_TRUE(result.converged) << result.reason;
  expect_fixed_effects(model, result, "theophylline-combined.csv",
                       {"lka", "lCL", "lV", "sd_prop", "sd_add"});
  EXPECT_NEAR(exact_at(model, result, 21), 347.10237974, 0.05);
}

// Neither a covariate nor censoring has exact results: the quadrature is the yardstick, for the
// value and for the maximum.
TEST(Trial, WeightOnClearanceAndCensoredValuesEndAtAMaximum) {
  for (const std::string path :
       {"examples/theophylline/weight.toml", "tests/varda/trials/censored.toml"}) {
    const population_model model = model_of(path, [](model_specification& file) {
      file.estimation.likelihood = varda::likelihood_kind::agq;
      file.estimation.agq_nodes = 15;
      file.estimation.resamples = 300;
    });
    const fit_result result = test::fit(model);
    EXPECT_TRUE(result.converged) << path << result.reason;
    EXPECT_LT(std::fabs(result.likelihood.minus2ll - result.quadrature.minus2ll), 0.1) << path;
    for (std::size_t k = 0; k < model.thetas().size(); ++k)
      for (const double factor : {0.95, 1.05}) {
        fit_result moved = result;
        moved.theta(static_cast<Eigen::Index>(k)) *= factor;
        EXPECT_GT(exact_at(model, moved, 9), result.quadrature.minus2ll - 0.01)
            << path << " " << model.thetas()[k].name << " x " << factor;
      }
  }
}

// A linear model: y is normal with variance omega + omega_occasion within an occasion.
double normal_minus2ll(const varda::dataset& data, double level, double between, double within,
                       double deviation) {
  double sum = 0.0;
  for (const varda::subject& who : data.subjects) {
    const auto n = static_cast<Eigen::Index>(who.observations.size());
    Eigen::MatrixXd variance = Eigen::MatrixXd::Constant(n, n, between);
    Eigen::VectorXd residual(n);
    for (Eigen::Index i = 0; i < n; ++i) {
      const auto& at = [&](Eigen::Index k) {
        return who.observations[static_cast<std::size_t>(k)];
      };
      const auto occasion = [&](Eigen::Index k) {
        return who.segments[static_cast<std::size_t>(at(k).segment)].occasion;
      };
      residual(i) = at(i).value - level;
      for (Eigen::Index j = 0; j < n; ++j)
        if (occasion(i) == occasion(j)) variance(i, j) += within;
      variance(i, i) += deviation * deviation;
    }
    const Eigen::LLT<Eigen::MatrixXd> factor(variance);
    sum += factor.matrixL().solve(residual).squaredNorm() +
           2.0 * factor.matrixLLT().diagonal().array().log().sum() +
           static_cast<double>(n) * std::log(2.0 * std::numbers::pi);
  }
  return sum;
}

TEST(Trial, EffectsPerOccasionMatchTheNormalDistribution) {
  const population_model model = model_of("tests/varda/trials/occasions.toml");
  EXPECT_EQ(model.random_effects(), 4);
  const fit_result result = test::fit(model);
  EXPECT_TRUE(result.converged) << result.reason;
  const std::array<double, 4> best = {result.theta(0), result.omega(0, 0), result.omega(1, 1),
                                      result.theta(1)};
  const auto exact = [&](const std::array<double, 4>& p) {
    return normal_minus2ll(model.data(), p[0], p[1], p[2], p[3]);
  };
  EXPECT_EQ(result.omega(1, 1), result.omega(3, 3));
  EXPECT_NEAR(result.likelihood.minus2ll, exact(best), 0.02);
  ASSERT_EQ(result.errors.names.size(), 4U);
  const std::array<int, 4> place = {0, 2, 3, 1};  // of the four among the estimates
  for (std::size_t k = 0; k < 4; ++k) {
    // A parabola through three points promises little more, and the curvature is the one that
    // the standard errors are made of (each taken alone, so theirs is at least as large).
    std::array<double, 4> low = best;
    std::array<double, 4> high = best;
    low[k] *= 0.98;
    high[k] *= 1.02;
    const double slope = (exact(high) - exact(low)) / 0.04;
    const double curvature = (exact(high) + exact(low) - 2.0 * exact(best)) / 0.0004;
    EXPECT_LT(0.5 * slope * slope / curvature, 0.02) << k;  // still to be gained
    const auto at = static_cast<std::size_t>(place[k]);
    const double alone = std::fabs(best[k]) * std::sqrt(2.0 / curvature);
    const double se = result.errors.by_information[at].se;
    EXPECT_GT(se, 0.95 * alone) << result.errors.names[at];
    EXPECT_LT(se, 1.5 * alone) << result.errors.names[at];
    EXPECT_EQ(result.errors.by_score.empty(), false);
  }
}

// Infusions, additional doses, every kind of steady state, lag, resets and weight that changes,
// against Runge-Kutta steps that share nothing with the engine.
// -2 log-likelihood of a bolus whose clearance varies between subjects and between occasions, each
// reset before: given the subject's deviation its occasions are independent. Sums over the points
// of even grids are exact to many digits.
double nested_minus2ll(const varda::dataset& data, double clearance, double volume,
                       double deviation, double between, double within) {
  constexpr int half = 60;
  const auto grid = [](double variance) {
    return Eigen::ArrayXd::LinSpaced(2 * half + 1, -7.0, 7.0) * std::sqrt(variance);
  };
  const auto log_normal = [](const Eigen::ArrayXd& x, double variance) {
    return -0.5 * x.square() / variance - 0.5 * std::log(2.0 * std::numbers::pi * variance);
  };
  const auto log_sum = [](const Eigen::ArrayXd& x) {
    return x.maxCoeff() + std::log((x - x.maxCoeff()).exp().sum());
  };
  const Eigen::ArrayXd of_subject = grid(between);
  const Eigen::ArrayXd of_occasion = grid(within);
  double sum = 0.0;
  for (const varda::subject& who : data.subjects) {
    Eigen::ArrayXd outer = log_normal(of_subject, between);
    for (Eigen::Index k = 0; k < outer.size(); ++k)
      for (std::size_t o = 0; o < who.doses.size(); ++o) {
        const double start = who.doses[o].time;
        Eigen::ArrayXd inner = log_normal(of_occasion, within);
        for (const varda::observation& at : who.observations) {
          if (at.time < start || at.time > start + 50.0) continue;
          const Eigen::ArrayXd rate = clearance / volume * (of_subject(k) + of_occasion).exp();
          const Eigen::ArrayXd f = who.doses[o].amount / volume * (-rate * (at.time - start)).exp();
          // A prediction of 0 makes any observation impossible.
          const Eigen::ArrayXd term = -0.5 * ((at.value - f) / (deviation * f)).square() -
                                      (deviation * f * std::sqrt(2.0 * std::numbers::pi)).log();
          inner += (f > 1e-100).select(term, -1e100);
        }
        outer(k) += log_sum(inner) + std::log(of_occasion(1) - of_occasion(0));
      }
    sum -= 2.0 * (log_sum(outer) + std::log(of_subject(1) - of_subject(0)));
  }
  return sum;
}

// Nine random effects whose conditional distributions are skewed.
TEST(Trial, ManyOccasionsMatchNestedQuadrature) {
  const population_model model = model_of("tests/varda/trials/many_occasions.toml");
  EXPECT_EQ(model.random_effects(), 9);
  const fit_result result = test::fit(model);
  EXPECT_TRUE(result.converged) << result.reason;
  const auto natural = [&](int k) {
    return model.thetas()[static_cast<std::size_t>(k)].natural(result.theta(k));
  };
  const auto exact = [&](double times_between, double times_within, double times_clearance) {
    return nested_minus2ll(model.data(), times_clearance * natural(0), natural(1), natural(2),
                           times_between * result.omega(0, 0), times_within * result.omega(1, 1));
  };
  const double there = exact(1.0, 1.0, 1.0);
  EXPECT_NEAR(result.likelihood.minus2ll, there, 4.0 * result.likelihood.mc_se);
  EXPECT_LT(result.likelihood.mc_se, 0.03);
  // A maximum: no better on either side, and the same on both.
  const std::array<std::array<double, 2>, 3> sides = {{{exact(1.1, 1, 1), exact(1 / 1.1, 1, 1)},
                                                       {exact(1, 1.1, 1), exact(1, 1 / 1.1, 1)},
                                                       {exact(1, 1, 1.1), exact(1, 1, 1 / 1.1)}}};
  for (const auto& [above, below] : sides) {
    EXPECT_GT(above, there);
    EXPECT_GT(below, there);
    // What is still ahead of a parabola through the three.
    const double slope = 0.5 * (above - below);
    EXPECT_LT(0.5 * slope * slope / (above + below - 2.0 * there), 0.01);
  }
}

TEST(Trial, PredictionsOfANastyHistoryEqualAnOdeSolution) {
  const auto exact = test::reference("../trials/history_reference.csv");
  for (const std::string name : {"history.toml", "history_equations.toml"}) {
    const population_model model = model_of("tests/varda/trials/" + name);
    const Eigen::VectorXd theta = model.start_theta();
    std::size_t compared = 0;
    for (int i = 0; i < model.subjects(); ++i) {
      Eigen::VectorXd mu(model.random_effects());
      model.means(i, theta.data(), mu.data());
      const Eigen::VectorXd f = test::predict(model, i, theta, mu);
      for (int k = 0; k < model.observations(i); ++k, ++compared) {
        const auto& o = model.data().subjects[static_cast<std::size_t>(i)].observations;
        const int row = o[static_cast<std::size_t>(k)].row;
        EXPECT_NEAR(f(k) / exact.at(std::to_string(row))[0], 1.0, 1e-6) << name << " row " << row;
      }
    }
    EXPECT_EQ(compared, exact.size());
  }
}

}  // namespace
