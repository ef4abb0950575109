// SPDX-License-Identifier: Apache-2.0
//
// Simulations of theophylline against moments by quadrature, bands against the conditional
// distribution on a grid, and visual predictive checks of examples that were worked out by hand or
// with R.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <Eigen/Cholesky>
#include <algorithm>
#include <boost/math/distributions/students_t.hpp>
#include <cmath>
#include <fstream>
#include <random>
#include <vector>

#include "tests/varda/theophylline.h"
#include "varda/data/fingerprint.h"
#include "varda/inference/estimation_scale.h"
#include "varda/report/simulation_tables.h"
#include "varda/simulation/design.h"
#include "varda/simulation/predict.h"
#include "varda/simulation/uncertainty.h"
#include "varda/simulation/uniforms.h"
#include "varda/simulation/vpc.h"

namespace varda {
namespace {

const double unknown = std::numeric_limits<double>::quiet_NaN();

drawn_parameters start_of(const population_model& model) {
  return {model.start_theta(), model.start_omega()};
}

// Points and weights of the trapezoidal rule for three standard normal deviates.
struct normal_grid {
  normal_grid() {
    constexpr double step = 0.5;
    constexpr int reach = 10;
    for (int a = -reach; a <= reach; ++a)
      for (int b = -reach; b <= reach; ++b)
        for (int c = -reach; c <= reach; ++c) {
          z.emplace_back(step * a, step * b, step * c);
          weights.push_back(std::pow(step / std::sqrt(2.0 * M_PI), 3) *
                            std::exp(-0.5 * z.back().squaredNorm()));
        }
  }
  std::vector<Eigen::Vector3d> z;
  std::vector<double> weights;
};

TEST(UniformNumbers, AreThoseOfTheStandardEngine) {
  std::seed_seq address{7, 2, 13};
  std::mt19937_64 engine(address);
  uniform_numbers numbers({7, 2, 13});
  const auto expected = [&] { return std::ldexp(static_cast<double>(engine() >> 12) + 0.5, -52); };
  // Across the ends of states, one by one and in pieces, of which one is longer than a state.
  for (const std::size_t count : {1, 310, 4, 700, 312}) {
    EXPECT_EQ(numbers.next(), expected());
    std::vector<double> some(count);
    numbers.take(some.data(), count);
    for (const double u : some) ASSERT_EQ(u, expected());
  }
}

TEST(Simulate, HasTheMomentsOfTheModel) {
  const population_model model = test::theophylline();
  const drawn_parameters at = start_of(model);
  constexpr int replicates = 20000;
  const auto simulated = simulate(model, {at}, {.replicates = replicates, .seed = 1, .threads = 2});
  const normal_grid grid;
  const Eigen::MatrixXd factor = at.omega.llt().matrixL();
  const double sigma2 = std::pow(at.theta(3), 2);
  constexpr int subject = 3;
  Eigen::VectorXd mu(3);
  model.means(subject, at.theta.data(), mu.data());
  const Eigen::Index n = model.observations(subject);
  Eigen::VectorXd mean = Eigen::VectorXd::Zero(n);
  Eigen::VectorXd square = Eigen::VectorXd::Zero(n);
  for (std::size_t k = 0; k < grid.z.size(); ++k) {
    const Eigen::VectorXd f = test::predict(model, subject, at.theta, mu + factor * grid.z[k]);
    mean += grid.weights[k] * f;
    square += grid.weights[k] * f.cwiseAbs2();
  }
  for (Eigen::Index j = 0; j < n; ++j) {
    const double variance = square(j) - mean(j) * mean(j) + sigma2;
    const Eigen::ArrayXd y = simulated[subject].values.row(j).array();
    EXPECT_NEAR(y.mean(), mean(j), 4.0 * std::sqrt(variance / replicates)) << j;
    // The fourth moment from the simulations themselves.
    const Eigen::ArrayXd squares = (y - y.mean()).square();
    const double error = std::sqrt((squares - squares.mean()).square().mean() / replicates);
    EXPECT_NEAR(squares.mean(), variance, 4.0 * error) << j;
  }
}

// Scaled residuals of simulated values against Student's t, in Boost, by their largest distance.
TEST(Simulate, ResidualsHaveTheirDistribution) {
  const std::vector<residual_error> errors = {
      {error_kind::combined, 0.4, 0.1, false, false, 0.0, false, 2.5},
      {error_kind::box_cox, 0.1, 0.0, false, false, 0.0, false, 30.0, 0.5}};
  for (const residual_error& error : errors) {
    const population_model model = test::theophylline([&](model_specification& file) {
      file.endpoints.front().residual = error;
      // Where the prediction is 0.
      file.data.drop = "EVID == 0 && TIME == 0";
    });
    const drawn_parameters at = start_of(model);
    const auto simulated = simulate(model, {at}, {.replicates = 1000, .seed = 2, .threads = 2});
    std::vector<double> shares;
    const boost::math::students_t student(error.degrees_of_freedom);
    for (const Eigen::Index j : {3, 5, 8})
      for (Eigen::Index r = 0; r < 1000; ++r) {
        observation made = model.data().subjects[2].observations[static_cast<std::size_t>(j)];
        made.value = simulated[2].values(j, r);
        shares.push_back(
            boost::math::cdf(student, model.observed().scaled_residual(
                                          made, simulated[2].individual(j, r), at.theta.data())));
      }
    std::sort(shares.begin(), shares.end());
    const auto n = static_cast<double>(shares.size());
    double furthest = 0.0;
    for (std::size_t k = 0; k < shares.size(); ++k)
      furthest = std::max(furthest, std::fabs(shares[k] - (static_cast<double>(k) + 0.5) / n));
    EXPECT_LT(furthest, 1.9 / std::sqrt(n));  // Kolmogorov and Smirnov at 0.1 %
  }
}

TEST(Simulate, AReplicateFollowsFromItsAddressAlone) {
  const population_model model = test::theophylline();
  const std::vector<drawn_parameters> at = {start_of(model)};
  const auto one = simulate(model, at, {.replicates = 5, .seed = 7, .threads = 1});
  const auto many = simulate(model, at, {.replicates = 9, .seed = 7, .threads = 3});
  const auto other = simulate(model, at, {.replicates = 5, .seed = 8, .threads = 1});
  for (std::size_t i = 0; i < one.size(); ++i) {
    EXPECT_TRUE(one[i].values == many[i].values.leftCols(5)) << i;
    EXPECT_FALSE(one[i].values == other[i].values) << i;
  }
  EXPECT_NE(one[0].values(0, 0), one[0].values(0, 1));
}

// The rows of a replicate are a data set with the doses of the first one, and its limit.
TEST(Simulate, WritesADataSet) {
  const population_model model = test::simulated(test::theophylline(), 1, 5, 3.0);
  const auto simulated =
      simulate(model, {start_of(model)}, {.replicates = 2, .seed = 1, .threads = 1});
  std::ofstream("simulated.csv") << simulation_header(model)
                                 << simulation_rows(model, simulated, 1);
  data_source source = model.specification().data;
  source.file = "simulated.csv";
  findings warnings;
  const dataset back = read_dataset(source, warnings);
  EXPECT_TRUE(warnings.empty());
  EXPECT_EQ(doses_fingerprint(back), doses_fingerprint(model.data()));
  ASSERT_EQ(back.observations(), model.data().observations());
  int censored = 0;
  for (std::size_t i = 0; i < back.subjects.size(); ++i)
    for (std::size_t j = 0; j < back.subjects[i].observations.size(); ++j) {
      const observation& o = back.subjects[i].observations[j];
      const double y = simulated[i].values(static_cast<Eigen::Index>(j), 1);
      EXPECT_EQ(o.time, model.data().subjects[i].observations[j].time);
      EXPECT_EQ(o.value, std::max(y, 3.0));
      EXPECT_EQ(o.censored == censoring::left, y < 3.0);
      censored += y < 3.0 ? 1 : 0;
    }
  EXPECT_GT(censored, 10);
}

TEST(Simulate, UncertainParametersHaveTheCovarianceOfTheEstimates) {
  const population_model model = test::theophylline();
  const drawn_parameters at = start_of(model);
  const estimation_scale scale(model, at.theta, at.omega);
  const int p = scale.size();
  Eigen::MatrixXd root = Eigen::MatrixXd::Zero(p, p);
  for (int i = 0; i < p; ++i)
    for (int j = 0; j <= i; ++j) root(i, j) = i == j ? 0.05 : 0.02 / (1.0 + i + j);
  const Eigen::MatrixXd covariance = root * root.transpose();
  std::vector<std::string> names;
  for (const auto& e : scale.entries()) names.push_back(e.name);
  constexpr int draws = 20000;
  int again = 0;
  const auto drawn = draw_parameters(model, at, names, covariance, draws, 1, again);
  Eigen::MatrixXd psi(p, draws);
  for (int r = 0; r < draws; ++r) {
    const auto& d = drawn[static_cast<std::size_t>(r)];
    psi.col(r) = estimation_scale(model, d.theta, d.omega).estimates();
  }
  EXPECT_EQ(again, 0);
  const Eigen::VectorXd mean = psi.rowwise().mean();
  psi.colwise() -= mean;
  const Eigen::MatrixXd found = psi * psi.transpose() / draws;
  for (int i = 0; i < p; ++i) {
    EXPECT_NEAR(mean(i), scale.estimates()(i), 4.0 * std::sqrt(covariance(i, i) / draws));
    for (int j = 0; j < p; ++j)
      EXPECT_NEAR(found(i, j), covariance(i, j),
                  4.0 * std::sqrt(2.0 * covariance(i, i) * covariance(j, j) / draws));
  }
  EXPECT_THROW(draw_parameters(model, at, {}, {}, 1, 1, again), bad_input);
  // Variances that are as good as unknown: draws with an omega that is not one are repeated.
  Eigen::MatrixXd wide = covariance;
  wide(p - 1, p - 1) = 0.25;
  for (const auto& d : draw_parameters(model, at, names, wide, 200, 1, again))
    EXPECT_GT(d.omega(2, 2), 0.0);
  EXPECT_GT(again, 20);
}

// The conditional distribution of a subject's prediction by quadrature over the random effects.
TEST(Predict, TheBandHoldsNinetyPercentOfTheConditionalDistribution) {
  const population_model model = test::theophylline([](model_specification& file) {
    test::set_parameters(file, {1.5, 2.7, 32.0}, {0.4, 0.07, 0.02}, 0.7);
  });
  const drawn_parameters at = start_of(model);
  const population_model wanted(model.specification(), on_grid(model.data(), {1.0, 6.0, 30.0}, 1));
  const auto predicted =
      predict(model, wanted, at, {}, {.samples = 20000, .seed = 1, .threads = 2});
  constexpr int subject = 4;
  const predicted_subject& found = predicted[subject];
  EXPECT_GT(found.effective_samples, 5000.0);
  Eigen::VectorXd mu(3);
  model.means(subject, at.theta.data(), mu.data());
  EXPECT_EQ(found.population, test::predict(wanted, subject, at.theta, mu));

  const Eigen::MatrixXd factor = at.omega.llt().matrixL();
  const density joint(model);
  density_workspace scratch(model);
  double all = 0.0;
  Eigen::Vector3d mean = Eigen::Vector3d::Zero();
  Eigen::Vector3d below = Eigen::Vector3d::Zero();
  Eigen::Vector3d above = Eigen::Vector3d::Zero();
  constexpr double step = 0.1;
  constexpr double reach = 3.6;
  for (double a = -reach; a < reach; a += step)
    for (double b = -reach; b < reach; b += step)
      for (double c = -reach; c < reach; c += step) {
        const Eigen::Vector3d z(a, b, c);
        const Eigen::VectorXd eta = factor * z;
        double squares = 0.0;
        const double w =
            std::exp(20.0 - 0.5 * z.squaredNorm() -
                     joint.of_data(subject, at.theta.data(), mu + eta, squares, scratch));
        if (w < 1e-12) continue;
        const Eigen::VectorXd f = test::predict(wanted, subject, at.theta, mu + eta);
        all += w;
        mean += w * eta;
        for (Eigen::Index j = 0; j < 3; ++j) {
          below(j) += f(j) < found.lower(j) ? w : 0.0;
          above(j) += f(j) > found.upper(j) ? w : 0.0;
        }
      }
  const double error = std::sqrt(0.05 * 0.95 / found.effective_samples);
  for (Eigen::Index j = 0; j < 3; ++j) {
    EXPECT_NEAR(below(j) / all, 0.05, 4.0 * error + 0.003) << j;
    EXPECT_NEAR(above(j) / all, 0.05, 4.0 * error + 0.003) << j;
  }
  const Eigen::VectorXd individual = test::predict(wanted, subject, at.theta, mu + mean / all);
  for (Eigen::Index j = 0; j < 3; ++j)
    EXPECT_NEAR(found.individual(j), individual(j), 0.01 * individual(j));
}

// Rows with MDV 1 and without DV are predicted, and condition nothing; a grid sees the doses still
// to come.
TEST(Predict, DesignsNeedNoValues) {
  std::ofstream("design.csv") << "ID,TIME,AMT,DV,EVID,MDV,ADDL,II\n"
                                 "1,0,100,.,1,1,2,24\n1,1,.,5,0,0,.,.\n1,2,.,7,0,1,.,.\n"
                                 "1,3,.,.,0,0,.,.\n";
  data_source source = test::theophylline().specification().data;
  source.file = "design.csv";
  source.values_needed = false;
  source.missing_counts = true;
  source.doses_until = 60.0;
  findings warnings;
  const dataset whole = read_dataset(source, warnings);
  ASSERT_EQ(whole.subjects.size(), 1U);
  EXPECT_EQ(whole.observations(), 3);
  EXPECT_EQ(whole.doses(), 3);
  const dataset observed = observed_part(whole);
  ASSERT_EQ(observed.observations(), 1);
  EXPECT_EQ(observed.subjects[0].observations[0].value, 5.0);
  EXPECT_EQ(observed.doses(), 3);
  const dataset grid = on_grid(whole, {0.0, 24.0, 50.0}, 1);
  std::vector<event_kind> kinds;
  for (const event& e : grid.subjects[0].timeline) kinds.push_back(e.kind);
  EXPECT_EQ(kinds, (std::vector<event_kind>{event_kind::dose, event_kind::observation,
                                            event_kind::dose, event_kind::observation,
                                            event_kind::dose, event_kind::observation}));
}

// R: quantile(c(1, 2, 4, 8), c(0.05, 0.5, 0.95)).
TEST(Vpc, PercentilesAreThoseOfR) {
  EXPECT_NEAR(percentile_of({1, 2, 4, 8}, 0.05), 1.15, 1e-14);
  EXPECT_EQ(percentile_of({1, 2, 4, 8}, 0.5), 3.0);
  EXPECT_NEAR(percentile_of({1, 2, 4, 8}, 0.95), 7.4, 1e-14);
  EXPECT_EQ(percentile_of({3}, 0.95), 3.0);
  EXPECT_TRUE(std::isinf(percentile_of({-INFINITY, 2, 4, 8}, 0.05)));
  EXPECT_EQ(percentile_of({-INFINITY, 2, 4, 8, 9}, 0.5), 4.0);
  EXPECT_TRUE(std::isnan(percentile_of({}, 0.5)));
}

TEST(Vpc, BinsHoldEqualNumbersAndSplitNoTies) {
  EXPECT_EQ(bin_edges({0, 0, 0, 1, 1, 2}, 5), (std::vector<double>{0, 0.5, 1.5, 2}));
  EXPECT_EQ(bin_edges({0, 1, 2, 3, 4, 5, 6, 7}, 2), (std::vector<double>{0, 3.5, 7}));
  // The cut in the middle falls into a tie; the nearest gap is behind it.
  EXPECT_EQ(bin_edges({0, 1, 2, 2, 2, 2, 5, 6, 7, 9}, 2), (std::vector<double>{0, 3.5, 9}));
  EXPECT_EQ(automatic_bins({11, 11, 11}), 6) << "at least five observations a bin";
  EXPECT_EQ(automatic_bins(std::vector<int>(12, 11)), 11);
  EXPECT_EQ(automatic_bins(std::vector<int>(120, 2)), 8);
  EXPECT_EQ(automatic_bins({2}), 1);
}

// Three subjects with two observations each, at times 1 and 2; the limit of quantification is 2.
// Predictions are those of the model, so that only the simulations are made up.
TEST(Vpc, OfAnExampleWorkedOutByHand) {
  const population_model whole = test::theophylline();
  dataset data = whole.data();
  data.subjects.resize(3);
  const double values[3][2] = {{3.0, 2.0}, {5.0, 7.0}, {9.0, 8.0}};
  for (std::size_t i = 0; i < 3; ++i) {
    subject& who = data.subjects[i];
    who.observations.clear();
    std::erase_if(who.timeline, [](const event& e) { return e.kind == event_kind::observation; });
    for (int j = 0; j < 2; ++j)
      append(who, observation{.time = 1.0 + j,
                              .value = values[i][j],
                              .censored = i == 0 && j == 1 ? censoring::left : censoring::none});
  }
  const population_model model(whole.specification(), data);
  std::vector<simulated_subject> simulated(3);
  // By subject: time 1, time 2; the columns are replicates.
  simulated[0].values = (Eigen::MatrixXd(2, 3) << 1, 4, 6, 1, 1, 5).finished();
  simulated[1].values = (Eigen::MatrixXd(2, 3) << 3, 5, 7, 1, 6, 6).finished();
  simulated[2].values = (Eigen::MatrixXd(2, 3) << 5, 9, 8, 4, 8, unknown).finished();
  vpc_plan plan;
  plan.edges = {0.5, 1.5, 2.5};
  const vpc_result result = visual_predictive_check(model, start_of(model), simulated, plan);
  ASSERT_EQ(result.panels.size(), 1U);
  const auto& bins = result.panels.front().bins;
  ASSERT_EQ(bins.size(), 2U);
  const auto expect = [](const vpc_statistic& s, double observed, double lower, double median,
                         double upper) {
    const auto same = [](double value, double wanted) {
      if (std::isnan(wanted))
        EXPECT_TRUE(std::isnan(value)) << value;
      else
        EXPECT_NEAR(value, wanted, 1e-12);
    };
    same(s.observed, observed);
    same(s.lower, lower);
    same(s.median, median);
    same(s.upper, upper);
  };
  // Time 1: observed 3 5 9. Replicates: 1 3 5, of which 1 is below the limit; 4 5 9; 6 7 8. Their
  // medians are 3 5 7; the 95th percentiles 4.8, 8.6, 7.9; the 5th is hidden once.
  expect(bins[0].percentiles[0], 3.2, unknown, 4.1, 4.1 + 0.95 * 2.0);
  expect(bins[0].percentiles[1], 5.0, 3.1, 5.0, 6.9);
  expect(bins[0].percentiles[2], 8.6, 4.8 + 0.05 * 3.1, 7.9, 7.9 + 0.95 * 0.7);
  expect(bins[0].censored, 0.0, 0.0, 0.0, 0.95 / 3.0);
  // Time 2: observed < 7 8. Replicates: < < 4; < 6 8; 5 6 and one that could not be simulated.
  expect(bins[1].percentiles[0], unknown, unknown, unknown, unknown);
  expect(bins[1].percentiles[1], 7.0, unknown, 5.5, 5.5 + 0.95 * 0.5);
  expect(bins[1].censored, 1.0 / 3.0, 0.05 / 3.0, 1.0 / 3.0, 2.0 / 3.0 - 0.05 / 3.0);
  EXPECT_THAT(result.panels.front().below,
              testing::ElementsAre(false, false, false, true, false, false));

  // Corrected by the prediction: every value times the bin's median prediction over its own.
  plan.prediction_corrected = true;
  const auto corrected = visual_predictive_check(model, start_of(model), simulated, plan);
  double f[3];
  for (int i = 0; i < 3; ++i) f[i] = population_predictions(model, i, model.start_theta())(0);
  std::vector<double> order(f, f + 3);
  std::sort(order.begin(), order.end());
  std::vector<double> y = {3.0 * order[1] / f[0], 5.0 * order[1] / f[1], 9.0 * order[1] / f[2]};
  std::sort(y.begin(), y.end());
  EXPECT_NEAR(corrected.panels.front().bins[0].percentiles[1].observed, y[1], 1e-12);

  // Outside the edges; and strata that the model does not have.
  plan.edges = {1.5, 2.5};
  EXPECT_EQ(visual_predictive_check(model, start_of(model), simulated, plan).panels[0].left_out, 3);
  plan.stratify = "WT";
  EXPECT_THROW(visual_predictive_check(model, start_of(model), simulated, plan), bad_input);
}

TEST(Vpc, StrataAreTheValuesOfACovariateOrHalves) {
  const population_model model =
      test::theophylline([](model_specification& file) { file.data.covariates = {"WT"}; });
  const auto simulated =
      simulate(model, {start_of(model)}, {.replicates = 50, .seed = 1, .threads = 1});
  vpc_plan plan;
  plan.stratify = "wt";
  const vpc_result result = visual_predictive_check(model, start_of(model), simulated, plan);
  ASSERT_EQ(result.panels.size(), 2U);
  EXPECT_EQ(result.panels[0].stratum, "WT at most 70.5");
  EXPECT_EQ(result.panels[1].stratum, "WT above 70.5");
  int all = 0;
  for (const vpc_panel& panel : result.panels)
    for (const vpc_bin& bin : panel.bins) all += bin.observations;
  EXPECT_EQ(all, 132);
}

}  // namespace
}  // namespace varda
