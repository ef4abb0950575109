// SPDX-License-Identifier: Apache-2.0
//
// Endpoints that are not continuous, from the model file to estimates, simulations and prediction
// errors: against densities written out here, and against maxima that bench/endpoints.R finds by
// quadrature in R for the data of tests/varda/endpoints.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <fstream>
#include <functional>
#include <map>
#include <numeric>

#include "tests/varda/theophylline.h"
#include "varda/diagnostics/npde.h"
#include "varda/diagnostics/predictions.h"
#include "varda/html_report/model_in_words.h"
#include "varda/input/model_file.h"
#include "varda/model/lanes/kernel.h"
#include "varda/model/start_evaluation.h"
#include "varda/report/simulation_tables.h"
#include "varda/simulation/simulate.h"
#include "varda/simulation/vpc.h"

namespace varda {
namespace {

using testing::HasSubstr;

population_model model_of(
    const std::string& name,
    const std::function<void(model_specification&)>& change = [](model_specification&) {}) {
  findings warnings;
  model_specification file =
      read_model_file(SOURCE_FOLDER "/tests/varda/endpoints/" + name + ".toml", warnings);
  change(file);
  dataset data = read_dataset(file.data, warnings);
  return {std::move(file), std::move(data)};
}

// A model file and its data, written for a test.
std::string written(const std::string& name, const std::string& text) {
  const std::string path = "endpoints_test_" + name;
  std::ofstream(path) << text;
  return path;
}
population_model model_from(const std::string& name, const std::string& model,
                            const std::string& data) {
  findings warnings;
  const std::string table = written(name + ".csv", data);
  model_specification file = read_model_file(
      written(name + ".toml", "[data]\nfile = \"" + table + "\"\n" + model), warnings);
  dataset read = read_dataset(file.data, warnings);
  return {std::move(file), std::move(read)};
}

constexpr const char* one_effect = R"(
[model]
structure = "formula"
[parameters]
a = { start = 0.4, distribution = "normal" }
b = { start = 0.3, distribution = "none" }
[omega]
a = 0.5
)";

double logistic(double x) {
  return 1.0 / (1.0 + std::exp(-x));
}
double normal_probability(double x) {
  return 0.5 * std::erfc(-x / std::sqrt(2.0));
}
double log_poisson(double y, double m) {
  return y * std::log(m) - m - std::lgamma(y + 1.0);
}
double log_negative_binomial(double y, double m, double a) {
  return std::lgamma(y + 1.0 / a) - std::lgamma(1.0 / a) - std::lgamma(y + 1.0) +
         y * std::log(a * m) - (y + 1.0 / a) * std::log(1.0 + a * m);
}

// A kind with its keys, the logarithm of its probability of y with parameters a and b, and the
// values that y is tried at (all there are, where their probabilities make 1).
struct law {
  const char* name;
  std::string keys;
  std::function<double(double, double, double)> log_probability;
  std::vector<double> values;
  bool all = false;
};

std::vector<double> counts(int most) {
  std::vector<double> y(static_cast<std::size_t>(most) + 1);
  std::iota(y.begin(), y.end(), 0.0);
  return y;
}

std::vector<law> laws() {
  const auto below = [](double x, bool probit) {
    return probit ? normal_probability(x) : logistic(x);
  };
  const auto ordinal = [=](bool probit) {
    return [=](double y, double a, double b) {
      const double x = a;
      const double cuts[] = {-b, b, 3.0 * b};
      const int k = y == -1.0 ? 0 : y == 0.0 ? 1 : y == 5.0 ? 2 : 3;
      const double upper = k == 3 ? 1.0 : below(cuts[k] - x, probit);
      return std::log(upper - (k == 0 ? 0.0 : below(cuts[k - 1] - x, probit)));
    };
  };
  const std::string cuts =
      "linear_predictor = \"a\"\nthresholds = [\"-b\", \"b\", \"3 * b\"]\nlevels = [-1, 0, 5, 7]\n";
  return {
      {"poisson", "kind = \"poisson\"\nmean = \"exp(a + b)\"\n",
       [](double y, double a, double b) { return log_poisson(y, std::exp(a + b)); }, counts(40),
       true},
      {"negative-binomial", "kind = \"negative-binomial\"\nmean = \"exp(a)\"\ndispersion = \"b\"\n",
       [](double y, double a, double b) { return log_negative_binomial(y, std::exp(a), b); },
       counts(200), true},
      {"zip", "kind = \"zero-inflated-poisson\"\nmean = \"exp(a)\"\nzero_inflation = \"b\"\n",
       [](double y, double a, double b) {
         const double p = (1.0 - b) * std::exp(log_poisson(y, std::exp(a)));
         return std::log(y == 0.0 ? b + p : p);
       },
       counts(40), true},
      {"zinb",
       "kind = \"zero-inflated-negative-binomial\"\nmean = 2.5\ndispersion = \"b\"\n"
       "zero_inflation = \"1 / (1 + exp(-a))\"\n",
       [](double y, double a, double b) {
         const double p = (1.0 - logistic(a)) * std::exp(log_negative_binomial(y, 2.5, b));
         return std::log(y == 0.0 ? logistic(a) + p : p);
       },
       counts(200), true},
      {"probability",
       "kind = \"binary\"\nprobability = \"b * exp(-a^2)\"\n",
       [](double y, double a, double b) {
         const double p = b * std::exp(-a * a);
         return std::log(y == 1.0 ? p : 1.0 - p);
       },
       {0, 1},
       true},
      {"logit",
       "kind = \"binary\"\nlinear_predictor = \"a + b\"\n",
       [](double y, double a, double b) {
         return std::log(y == 1.0 ? logistic(a + b) : logistic(-a - b));
       },
       {0, 1},
       true},
      {"probit",
       "kind = \"binary\"\nlinear_predictor = \"a + b\"\nlink = \"probit\"\n",
       [](double y, double a, double b) {
         return std::log(normal_probability(y == 1.0 ? a + b : -a - b));
       },
       {0, 1},
       true},
      {"ordinal", "kind = \"ordinal\"\n" + cuts, ordinal(false), {-1, 0, 5, 7}, true},
      {"ordinal_probit",
       "kind = \"ordinal\"\nlink = \"probit\"\n" + cuts,
       ordinal(true),
       {-1, 0, 5, 7},
       true},
      {"own",
       "kind = \"log-likelihood\"\nlog_likelihood = \"log(b) - b * DV + 0 * a\"\n",
       [](double y, double, double b) { return std::log(b) - b * y; },
       {0, 0.5, 3}},
  };
}

population_model model_of_law(const law& of) {
  std::string data = "ID,DV\n";
  for (const double y : of.values) data += "1," + std::to_string(y) + "\n";
  return model_from(of.name, one_effect + ("[endpoint.y]\n" + of.keys), data);
}

TEST(Endpoints, EveryKindHasItsDensity) {
  for (const law& of : laws()) {
    SCOPED_TRACE(of.name);
    const population_model model = model_of_law(of);
    const density joint(model);
    density_workspace scratch(model);
    Eigen::MatrixXd phi(1, 4);
    phi << -1.5, -0.2, 0.4, 1.0;
    Eigen::MatrixXd f;
    const Eigen::VectorXd theta = model.start_theta();
    joint.predict(0, theta.data(), phi, f, scratch);
    for (Eigen::Index j = 0; j < phi.cols(); ++j) {
      double sum = 0.0;
      for (std::size_t k = 0; k < of.values.size(); ++k) {
        const double expected = of.log_probability(of.values[k], phi(0, j), theta(1));
        EXPECT_NEAR(f(j, static_cast<Eigen::Index>(k)), expected,
                    1e-11 * (1.0 + std::fabs(expected)))
            << of.values[k];
        sum += std::exp(f(j, static_cast<Eigen::Index>(k)));
      }
      EXPECT_NEAR(of.all ? sum : 1.0, 1.0, 1e-9);
    }
    Eigen::VectorXd objective;
    Eigen::VectorXd squares;
    joint.of_data(0, theta.data(), f, objective, squares);
    for (Eigen::Index j = 0; j < phi.cols(); ++j)
      EXPECT_NEAR(objective(j), -f.row(j).sum(), 1e-12 * std::fabs(objective(j)));
  }
}

// The mean by the probabilities, and each value as often as its probability says.
TEST(Endpoints, ExpectationsAndSimulationsFollowTheLaw) {
  constexpr int replicates = 4000;
  for (const law& of : laws()) {
    if (!of.all) continue;
    SCOPED_TRACE(of.name);
    const population_model model = model_of_law(of);
    const drawn_parameters at{model.start_theta(), Eigen::MatrixXd::Constant(1, 1, 1e-12)};
    double mean = 0.0;
    const auto probability = [&](double y) {
      return std::exp(of.log_probability(y, at.theta(0), at.theta(1)));
    };
    for (const double y : of.values) mean += y * probability(y);
    EXPECT_NEAR(population_predictions(model, 0, at.theta)(0), mean, 1e-8);
    const auto simulated = simulate(model, {at}, {.replicates = replicates, .threads = 2});
    const Eigen::ArrayXd values = simulated[0].values.row(1).array();
    double seen = 0.0;
    for (const double y : of.values) {
      const double p = probability(y);
      const auto times = static_cast<double>((values == y).count());
      seen += times;
      EXPECT_NEAR(times / replicates, p, 4.5 * std::sqrt(p * (1.0 - p) / replicates) + 1e-4) << y;
    }
    EXPECT_EQ(seen, replicates);
    EXPECT_NEAR(simulated[0].individual(1, 0), mean, 1e-4);
  }
}

TEST(Endpoints, LogLikelihoodsOfTheUsersOwnHaveNoSimulationsAndNoPredictionErrors) {
  const population_model model = model_of_law(laws().back());
  const drawn_parameters at{model.start_theta(), model.start_omega()};
  EXPECT_TRUE(simulate(model, {at}, {})[0].values.array().isNaN().all());
  EXPECT_TRUE(npde(model, 0, at.theta, at.omega, 200, 1).array().isNaN().all());
  const subject_predictions p = predictions_of(model, 0, at.theta, Eigen::VectorXd::Zero(1));
  EXPECT_TRUE(p.population.array().isNaN().all());
  EXPECT_TRUE(p.residuals.array().isNaN().all());
}

// In both sets of instructions, against the C library.
TEST(Endpoints, SpecialFunctionsOfLanesKeepTheirDigits) {
  std::vector<double> x;
  for (double v = 1e-8; v < 1e8; v *= 1.37) x.push_back(v);
  x.resize(whole_lanes(x.size()), 2.0);
  std::vector<double> n(x.size());
  for (std::size_t k = 0; k < n.size(); ++k) n[k] = static_cast<double>(k % 50);
  const auto run = [&](lane_code code, const char* set) {
    std::vector<double> out(x.size());
    const lane_operation operation{code, 2, 0, 1, 0};
    double* registers[] = {x.data(), n.data(), out.data()};
    lane_kernel_named(set)->run(&operation, 1, registers, x.size());
    return out;
  };
  for (const lane_code code : {lane_code::log_gamma, lane_code::digamma, lane_code::log_gamma_ratio,
                               lane_code::normal_cdf, lane_code::log_normal_cdf}) {
    const std::vector<double> plain = run(code, "sse2");
    if (lane_kernel_named("avx2") != nullptr) {
      EXPECT_EQ(plain, run(code, "avx2"));
    }
    for (std::size_t k = 0; k < x.size(); ++k) {
      double expected = 0.0;
      double scale = 1.0;
      switch (code) {
        case lane_code::log_gamma:
          expected = std::lgamma(x[k]);
          break;
        case lane_code::digamma: {
          // Five-point differences of the C library's function.
          const double h = 1e-3 * x[k];
          const auto g = [&](double by) { return std::lgamma(x[k] + by * h); };
          expected = (8.0 * (g(1) - g(-1)) - (g(2) - g(-2))) / (12.0 * h);
          scale = 1e5 * (1.0 + std::fabs(std::lgamma(x[k])) / (h * std::fabs(expected)) * 1e-7);
          break;
        }
        case lane_code::log_gamma_ratio:
          for (int j = 0; j < static_cast<int>(n[k]); ++j) expected += std::log(x[k] + j);
          break;
        case lane_code::normal_cdf:
          expected = normal_probability(x[k]);
          break;
        default:
          expected = std::log1p(-normal_probability(-x[k]));
          break;
      }
      EXPECT_NEAR(plain[k], expected, scale * 4e-14 * (1.0 + std::fabs(expected)))
          << static_cast<int>(code) << " at " << x[k] << ", " << n[k];
    }
  }
}

constexpr const char* weibull_model = R"(
[model]
structure = "formula"
[parameters]
scale = { start = 6 }
shape = { start = 1.5, distribution = "none" }
[omega]
scale = 0.2
[endpoint.event]
kind = "event"
)";
constexpr const char* closed = "cumulative_hazard = \"(t / scale)^shape\"\n";
constexpr const char* integrated = "hazard = \"shape / scale * (t / scale)^(shape - 1)\"\n";

// Rows of all kinds, with what they contribute by the survival function exp(-(t / scale)^shape).
TEST(Events, EveryRowCountsWithWhatIsKnown) {
  const std::string data =
      "ID,TIME,DV,CENS,LIMIT\n"
      "1,4,1,0,.\n"                         // an event at 4
      "2,4,0,0,.\n"                         // none until 4
      "3,4,1,-1,.\n"                        // the same
      "4,4,1,1,.\n"                         // one before 4
      "5,4,1,1,2.5\n"                       // one between
      "6,1,0,0,.\n6,3,0,0,.\n6,5,1,0,.\n"   // seen twice before
      "7,2,0,0,.\n7,6,1,1,3\n"              // seen, and one between
      "8,2,1,0,.\n8,5,1,0,.\n8,6,0,0,.\n";  // three rows of a repeated event
  const auto h = [](double t) { return 0.25 * std::sqrt(t / 6.0); };
  const auto total = [](double t) { return std::pow(t / 6.0, 1.5); };
  const auto between = [&](double a, double b) {
    return std::log(std::exp(-total(a)) - std::exp(-total(b)));
  };
  const double expected[] = {std::log(h(4)) - total(4),
                             -total(4),
                             -total(4),
                             std::log(-std::expm1(-total(4))),
                             between(2.5, 4),
                             std::log(h(5)) - total(5),
                             between(3, 6)};
  for (const char* hazard : {closed, integrated}) {
    SCOPED_TRACE(hazard);
    const bool solved = hazard == integrated;
    const population_model model =
        model_from("rows", std::string(weibull_model) + hazard + "repeated = true\n", data);
    const density joint(model);
    density_workspace scratch(model);
    const Eigen::VectorXd theta = model.start_theta();
    const Eigen::VectorXd phi = Eigen::VectorXd::Constant(1, std::log(6.0));
    double squares = 0.0;
    const double tolerance = solved ? 2e-6 : 1e-12;
    for (int i = 0; i < 7; ++i) {
      const double log_density = -joint.of_data(i, theta.data(), phi, squares, scratch);
      EXPECT_NEAR(log_density, expected[i], tolerance) << "subject " << i + 1;
    }
    EXPECT_NEAR(-joint.of_data(7, theta.data(), phi, squares, scratch),
                std::log(h(2)) + std::log(h(5)) - total(6), 2.0 * tolerance);
    // What is expected of a row is the hazard since the row before.
    const Eigen::VectorXd seen = population_predictions(model, 7, theta);
    EXPECT_NEAR(seen(0), total(2), tolerance);
    EXPECT_NEAR(seen(1), total(5) - total(2), tolerance);
    const subject_predictions p = predictions_of(model, 7, theta, Eigen::VectorXd::Zero(1));
    EXPECT_NEAR(p.residuals(1), 1.0 - seen(1), 1e-12);
    EXPECT_NEAR(p.residuals(2), -seen(2), 1e-12);
  }
}

// A hazard that a concentration drives, against Simpson's rule; doses in units that would drown a
// cumulative hazard near 1 if the solver allowed it the same error.
TEST(Events, AHazardThatAStateDrivesIsIntegrated) {
  const std::string model_text = R"toml(
[model]
structure = "equations"
[model.derivatives]
depot = "-depot"
central = "depot - k * central"
[parameters]
k = { start = 0.2 }
beta = { start = 0.7, distribution = "none" }
[omega]
k = 0.1
[endpoint.event]
kind = "event"
hazard = "0.05 * exp(beta * central / 1e9)"
)toml";
  const population_model model = model_from(
      "driven", model_text, "ID,TIME,DV,AMT\n1,1,.,1e9\n1,9,.,2e9\n1,14,0,.\n1,20,1,.\n");
  const auto central = [](double t) {
    const auto one = [](double s) {
      return s < 0.0 ? 0.0 : (std::exp(-0.2 * s) - std::exp(-s)) / 0.8;
    };
    return one(t - 1.0) + 2.0 * one(t - 9.0);
  };
  const auto h = [&](double t) { return 0.05 * std::exp(0.7 * central(t)); };
  const auto integral = [&](double from, double to) {
    constexpr int n = 2000;
    const double w = (to - from) / n;
    double sum = h(from) + h(to);
    for (int k = 1; k < n; ++k) sum += (k % 2 == 1 ? 4.0 : 2.0) * h(from + w * k);
    return sum * w / 3.0;
  };
  const double total = integral(0, 1) + integral(1, 9) + integral(9, 20);
  const density joint(model);
  density_workspace scratch(model);
  const Eigen::VectorXd phi = Eigen::VectorXd::Constant(1, std::log(0.2));
  double squares = 0.0;
  EXPECT_NEAR(-joint.of_data(0, model.start_theta().data(), phi, squares, scratch),
              std::log(h(20)) - total, 1e-6);
  EXPECT_NEAR(population_predictions(model, 0, model.start_theta())(1), integral(14, 20), 1e-6);
}

// A covariate that changes counts from its record on, in the likelihood and in simulations.
TEST(Events, AHazardFollowsItsCovariates) {
  const population_model model =
      model_from("changing", std::string(weibull_model) + "hazard = \"x * shape / scale\"\n",
                 "ID,TIME,DV,EVID,x\n1,0,.,2,1\n1,4,.,2,5\n1,10,0,0,5\n");
  const double total = (4.0 + 6.0 * 5.0) * 0.25;
  EXPECT_NEAR(population_predictions(model, 0, model.start_theta())(0), total, 1e-9);
  const drawn_parameters at{model.start_theta(), Eigen::MatrixXd::Constant(1, 1, 1e-12)};
  constexpr int replicates = 4000;
  const auto simulated = simulate(model, {at}, {.replicates = replicates});
  for (const double t : {3.0, 4.0, 4.5}) {
    const double p = 1.0 - std::exp(-0.25 * (t <= 4.0 ? t : 4.0 + 5.0 * (t - 4.0)));
    int before = 0;
    for (const std::vector<event_row>& rows : simulated[0].events)
      before += rows[0].happened && rows[0].time <= t ? 1 : 0;
    EXPECT_NEAR(before / static_cast<double>(replicates), p,
                4.0 * std::sqrt(p * (1.0 - p) / replicates) + 1e-3)
        << t;
  }
}

// Times of events have the distribution of the model, and the watch ends as documented.
TEST(Events, SimulationsFollowTheHazard) {
  constexpr int replicates = 4000;
  const std::string data = "ID,TIME,DV\n1,5,0\n2,3,1\n3,8,0\n";
  for (const char* hazard : {closed, integrated}) {
    SCOPED_TRACE(hazard);
    const population_model model =
        model_from("simulated", std::string(weibull_model) + hazard, data);
    const drawn_parameters at{model.start_theta(), Eigen::MatrixXd::Constant(1, 1, 1e-12)};
    const auto simulated = simulate(model, {at}, {.replicates = replicates, .threads = 2});
    const double ends[] = {5.0, 8.0, 8.0};
    for (std::size_t i = 0; i < 3; ++i) {
      std::map<double, int> before;
      for (const std::vector<event_row>& rows : simulated[i].events) {
        ASSERT_EQ(rows.size(), 1U);
        EXPECT_LE(rows[0].time, ends[i]);
        EXPECT_TRUE(rows[0].happened || rows[0].time == ends[i]);
        for (const double t : {0.02, 0.5, 2.0, 4.0, 5.0})
          before[t] += rows[0].happened && rows[0].time <= t ? 1 : 0;
      }
      for (const auto& [t, count] : before) {
        const double p = 1.0 - std::exp(-std::pow(t / 6.0, 1.5));
        EXPECT_NEAR(count / static_cast<double>(replicates), p,
                    4.0 * std::sqrt(p * (1.0 - p) / replicates) + 2e-5)
            << i << " until " << t;
      }
    }
    // The rows of the simulated table: an event or the end of the watch, and none of the design's.
    const std::string table = simulation_rows(model, simulated, 0);
    EXPECT_EQ(std::count(table.begin(), table.end(), '\n'), 3);
  }
}

// Worked out by hand: five subjects leave at 1 (event), 2, 3 (two events), 4.
TEST(Events, CurvesAreThoseOfKaplanAndMeierAndOfNelsonAndAalen) {
  const std::vector<std::vector<double>> events = {{1}, {}, {3}, {3}, {}};
  const std::vector<double> ends = {1, 2, 3, 3, 4};
  const std::vector<double> survival = event_curve(events, ends, false, {0, 1, 2.5, 3, 4, 4.5});
  const double expected[] = {1.0, 0.8, 0.8, 0.8 / 3.0, 0.8 / 3.0};
  for (std::size_t k = 0; k < 5; ++k) EXPECT_NEAR(survival[k], expected[k], 1e-15) << k;
  EXPECT_TRUE(std::isnan(survival[5]));
  // Two subjects, watched until 5 and 2, with events at 1 and 4, and at 1.
  const std::vector<double> mean = event_curve({{1, 4}, {1}}, {5, 2}, true, {0.5, 1, 3, 4});
  EXPECT_THAT(mean, testing::ElementsAre(0.0, 1.0, 1.0, 2.0));
}

// Data of the model itself lie inside the band of its simulations.
TEST(Events, TheBandOfSimulationsHoldsTheDataOfTheModel) {
  std::string data = "ID,TIME,DV\n";
  for (int i = 1; i <= 80; ++i) {
    // Quantiles of the law at (i - 1/2) / 80, watched until 7.
    const double t = 6.0 * std::pow(-std::log(1.0 - (i - 0.5) / 80.0), 1.0 / 1.5);
    data +=
        std::to_string(i) + "," + std::to_string(std::min(t, 7.0)) + (t < 7.0 ? ",1\n" : ",0\n");
  }
  const population_model model = model_from("band", std::string(weibull_model) + closed, data);
  const drawn_parameters at{model.start_theta(), Eigen::MatrixXd::Constant(1, 1, 1e-12)};
  const auto simulated = simulate(model, {at}, {.replicates = 300, .threads = 2});
  const vpc_result result = visual_predictive_check(model, at, simulated, {});
  ASSERT_EQ(result.events.size(), 1U);
  EXPECT_TRUE(result.panels.empty());
  const event_panel& panel = result.events[0];
  for (std::size_t k = 1; k < panel.times.size(); ++k) {
    const vpc_statistic& s = panel.values[k];
    EXPECT_NEAR(s.observed, std::exp(-std::pow(panel.times[k] / 6.0, 1.5)), 0.013);
    EXPECT_LE(s.lower, s.observed);
    EXPECT_GE(s.upper, s.observed);
    EXPECT_LT(s.upper - s.lower, 0.3);
  }
}

TEST(Events, RepeatedEventsComeAsOftenAsTheHazardSays) {
  constexpr int replicates = 4000;
  const population_model model = model_from(
      "repeated", std::string(weibull_model) + closed + "repeated = true\nfollow_up = 20\n",
      "ID,TIME,DV\n1,1,1\n1,2,1\n1,10,0\n");
  const drawn_parameters at{model.start_theta(), Eigen::MatrixXd::Constant(1, 1, 1e-12)};
  const auto simulated = simulate(model, {at}, {.replicates = replicates});
  double count = 0.0;
  for (const std::vector<event_row>& rows : simulated[0].events) {
    for (const event_row& row : rows) count += row.happened ? 1.0 : 0.0;
    EXPECT_EQ(rows.back().time, 20.0);
  }
  const double mean = std::pow(20.0 / 6.0, 1.5);
  EXPECT_NEAR(count / replicates, mean, 4.0 * std::sqrt(mean / replicates));
}

// What NPDE decorrelate by, beside what their simulated values are.
void expect_moments_of_values(const population_model& model) {
  constexpr int individuals = 40000;
  const drawn_parameters at{model.start_theta(), model.start_omega()};
  const auto& observed = model.data().subjects[0].observations;
  const std::vector<Eigen::Index> rows = {0, static_cast<Eigen::Index>(observed.size()) - 1};
  deviates draw({1, 2});
  const ranked_values found = subject_simulator(model, 0, at).simulate(individuals, draw, rows);
  ASSERT_EQ(found.values.rows(), individuals);
  const auto covariance_of = [](const Eigen::MatrixXd& values) -> Eigen::MatrixXd {
    const Eigen::MatrixXd centred = values.rowwise() - values.colwise().mean();
    return centred.transpose() * centred / (individuals - 1.0);
  };
  const Eigen::MatrixXd expected = covariance_of(found.values);
  Eigen::MatrixXd covariance = covariance_of(found.means);
  covariance.diagonal() += found.variances;
  for (Eigen::Index i = 0; i < 2; ++i) {
    EXPECT_NEAR(found.means.col(i).mean(), found.values.col(i).mean(),
                4.0 * std::sqrt(expected(i, i) / individuals));
    for (Eigen::Index j = 0; j < 2; ++j)
      EXPECT_NEAR(covariance(i, j), expected(i, j),
                  0.04 * std::sqrt(expected(i, i) * expected(j, j)));
  }
  for (Eigen::Index j = 0; j < 2; ++j) {
    const observation& o = observed[static_cast<std::size_t>(rows[static_cast<std::size_t>(j)])];
    if (!model.observed().is_normal(o)) continue;
    const double* const theta = at.theta.data();
    const double value = model.observed().simulated(o, 7.0, -0.8, theta);
    EXPECT_NEAR(
        model.observed().transformed(o, value),
        model.observed().transformed(o, 7.0) - 0.8 * model.observed().deviation(o, 7.0, theta),
        1e-12);
  }
}

TEST(Endpoints, MomentsGivenTheRandomEffectsAreThoseOfSimulatedValues) {
  for (const char* name :
       {"poisson", "negative-binomial", "zero-inflated", "binary", "ordinal", "joint"}) {
    SCOPED_TRACE(name);
    expect_moments_of_values(model_of(name));
  }
  for (const residual_error& error :
       {residual_error{error_kind::additive, 3.0, 0.0, false, false, 0.0, false, 8.0},
        residual_error{error_kind::combined, 0.8, 0.2}, residual_error{error_kind::log_normal, 0.5},
        residual_error{error_kind::box_cox, 0.4, 0.0, false, false, 0.0, false, 0.0, 0.5}}) {
    SCOPED_TRACE(static_cast<int>(error.kind));
    expect_moments_of_values(test::theophylline([&](model_specification& file) {
      file.endpoints.front().residual = error;
      file.data.drop = "EVID == 0 && TIME == 0";
    }));
  }
}

// At the truth the errors of data that the model has made are standard normal.
TEST(Endpoints, RandomisedPredictionErrorsAreStandardNormal) {
  for (const char* name : {"poisson", "ordinal"}) {
    SCOPED_TRACE(name);
    const population_model design = model_of(name);
    const drawn_parameters at{design.start_theta(), design.start_omega()};
    const auto made = simulate(design, {at}, {.seed = 5});
    dataset data = design.data();
    for (std::size_t i = 0; i < data.subjects.size(); ++i)
      for (std::size_t j = 0; j < data.subjects[i].observations.size(); ++j)
        data.subjects[i].observations[j].value = made[i].values(static_cast<Eigen::Index>(j), 0);
    const population_model model(design.specification(), data);
    std::vector<double> all;
    for (int i = 0; i < model.subjects(); ++i)
      for (const double e : npde(model, i, at.theta, at.omega, 1000, 3)) all.push_back(e);
    const auto n = static_cast<double>(all.size());
    double mean = 0.0;
    double square = 0.0;
    for (const double e : all) mean += e / n;
    for (const double e : all) square += (e - mean) * (e - mean) / n;
    EXPECT_NEAR(mean, 0.0, 4.0 / std::sqrt(n));
    EXPECT_NEAR(square, 1.0, 4.0 * std::sqrt(2.0 / n) + 0.02);
    std::sort(all.begin(), all.end());
    double furthest = 0.0;
    for (std::size_t k = 0; k < all.size(); ++k)
      furthest = std::max(
          furthest, std::fabs(normal_probability(all[k]) - (static_cast<double>(k) + 0.5) / n));
    EXPECT_LT(furthest, 1.9 / std::sqrt(n));  // Kolmogorov and Smirnov at 0.1 %
    EXPECT_EQ(npde(model, 2, at.theta, at.omega, 1000, 3),
              npde(model, 2, at.theta, at.omega, 1000, 3));
    EXPECT_NE(npde(model, 2, at.theta, at.omega, 1000, 3),
              npde(model, 2, at.theta, at.omega, 1000, 4));
  }
}

TEST(Endpoints, TheReportTellsTheLawAndNoStructureThatIsNotThere) {
  const model_account account = in_words(model_of("poisson"));
  EXPECT_THAT(account.observations,
              testing::ElementsAre("y(count) ~ poisson: mean = base * exp(drug * TRT)"));
  EXPECT_THAT(account.structure, testing::IsEmpty());
  EXPECT_EQ(account.words[0], "Structural model: formula.");
}

finding refusal(const std::string& name, const std::string& model, const std::string& data) {
  try {
    const population_model made = model_from(name, model, data);
    check_start(made);
  } catch (const bad_input& refused) {
    return refused.what_found();
  }
  return {};
}

TEST(Endpoints, RefusesModelsThatSayTooLittleOrTooMuch) {
  const std::string poisson = "[endpoint.y]\nkind = \"poisson\"\nmean = \"exp(a + b)\"\n";
  struct wrong {
    const char* code;
    const char* key;
    std::string text;
  };
  const std::vector<wrong> cases = {
      {"E-MODEL-MISSING", "endpoint.y.mean", "[endpoint.y]\nkind = \"poisson\"\n"},
      {"E-MODEL-MISSING", "endpoint.y.kind", "[endpoint.y]\nmean = \"a + b\"\n"},
      {"E-MODEL-WORD", "endpoint.y.kind", "[endpoint.y]\nkind = \"poison\"\nmean = \"a + b\"\n"},
      {"E-MODEL-KEY", "endpoint.y.dispersion", poisson + "dispersion = 1\n"},
      {"E-MODEL-FORMULA", "endpoint.y.mean", "[endpoint.y]\nkind = \"poisson\"\nmean = \"a +\"\n"},
      {"E-MODEL-SYMBOL", "endpoint.y.mean",
       "[endpoint.y]\nkind = \"poisson\"\nmean = \"a + b + z\"\n"},
      // The value has a name in a log-likelihood only.
      {"E-MODEL-ENDPOINT", "endpoint.y",
       "[endpoint.y]\nkind = \"binary\"\nprobability = \"a\"\nlinear_predictor = \"b\"\n"},
      {"E-MODEL-ENDPOINT", "endpoint.y", "[endpoint.y]\nkind = \"event\"\n"},
      {"E-MODEL-ENDPOINT", "endpoint.y.levels",
       "[endpoint.y]\nkind = \"ordinal\"\nlinear_predictor = \"a\"\nthresholds = [\"b\"]\n"
       "levels = [1, 2, 3]\n"},
      {"E-MODEL-ENDPOINT", "endpoint.y.levels",
       "[endpoint.y]\nkind = \"ordinal\"\nlinear_predictor = \"a\"\nthresholds = [\"b\"]\n"
       "levels = [2, 1]\n"},
      {"E-MODEL-TYPE", "endpoint.y.thresholds",
       "[endpoint.y]\nkind = \"ordinal\"\nlinear_predictor = \"a\"\nthresholds = []\n"},
      {"E-MODEL-SYMBOL", "endpoint.y.cumulative_hazard",
       "[endpoint.y]\nkind = \"event\"\ncumulative_hazard = \"a * tad + b\"\n"},
      {"E-MODEL-ENDPOINT", "residual", poisson + "[residual]\nadditive = 1\n"},
      {"E-MODEL-MISSING", "model.outputs", poisson + "[residual.z]\nadditive = 1\n"},
      {"E-MODEL-ENDPOINT", "endpoint.z.dvid",
       poisson + "[endpoint.z]\ndvid = 1\nkind = \"poisson\"\nmean = \"a + b\"\n"},
  };
  for (const wrong& c : cases) {
    const finding found = refusal("bad", one_effect + c.text, "ID,TIME,DV,AMT,DVID\n1,1,0,.,1\n");
    EXPECT_EQ(found.code, c.code) << c.text << found.message;
    EXPECT_TRUE(found.column == c.key || found.column.starts_with(c.key)) << c.text << found.column;
  }
  const finding structure = refusal(
      "library",
      "[model]\nstructure = \"one-compartment zero-order\"\n[parameters]\nTk0 = { start = 1 }\n"
      "CL = { start = 1 }\nV = { start = 1 }\n[omega]\nCL = 0.1\nV = 0.1\n"
      "[endpoint.y]\nkind = \"poisson\"\nmean = 1\n",
      "ID,TIME,DV,AMT\n1,0,.,1\n1,1,0,.\n");
  EXPECT_EQ(structure.code, "E-MODEL-ENDPOINT");
}

// A structure of the library knows its states where an endpoint asks for one, also when it would be
// a closed form by itself.
TEST(Endpoints, StandBesideAStructureOfTheLibrary) {
  const std::string rest =
      "[parameters]\nka = { start = 1.2 }\nCL = { start = 3 }\nV = { start = 30 }\n"
      "h = { start = 0.02, distribution = \"none\" }\n[omega]\nka = 0.1\nCL = 0.1\nV = 0.1\n"
      "[residual.concentration]\nadditive = 0.5\n"
      "[endpoint.pain]\nkind = \"event\"\nhazard = \"h * exp(-0.1 * central / V)\"\n"
      "[model.solver]\nrelative = 1e-9\n";
  const std::string data = "ID,TIME,DV,AMT,DVID\n1,0,.,320,.\n1,1,7,.,1\n1,6,5,.,1\n1,9,1,.,2\n";
  const population_model named =
      model_from("named", "[model]\nstructure = \"one-compartment oral\"\n" + rest, data);
  const population_model written_out = model_from(
      "written_out",
      "[model]\nstructure = \"equations\"\n[model.derivatives]\ndepot = \"-ka * depot\"\n"
      "central = \"ka * depot - CL / V * central\"\n"
      "[model.outputs]\nconcentration = \"central / V\"\n" +
          rest,
      data);
  const auto objective = [](const population_model& model) {
    const density joint(model);
    density_workspace scratch(model);
    Eigen::MatrixXd phi(3, 1);
    phi << 0.2, 1.0, 3.4;
    Eigen::MatrixXd f;
    joint.predict(0, model.start_theta().data(), phi, f, scratch);
    Eigen::VectorXd value;
    Eigen::VectorXd squares;
    joint.of_data(0, model.start_theta().data(), f, value, squares);
    return value(0);
  };
  EXPECT_TRUE(std::isfinite(objective(named)));
  EXPECT_NEAR(objective(named), objective(written_out), 1e-6);
}

TEST(Endpoints, RefusesValuesThatCannotBe) {
  struct wrong {
    const char* code;
    const char* column;
    int row;
    std::string model;
    std::string data;
  };
  const std::string poisson =
      one_effect + std::string("[endpoint.y]\nkind = \"poisson\"\nmean = \"exp(a + b)\"\n");
  const std::string ordinal =
      one_effect +
      std::string(
          "[endpoint.y]\nkind = \"ordinal\"\nlinear_predictor = \"a\"\nthresholds = [\"b\"]\n");
  const std::string event = weibull_model + std::string(closed);
  const std::string solved = weibull_model + std::string(integrated);
  const std::vector<wrong> cases = {
      {"E-DATA-VALUE", "DV", 3, poisson, "ID,DV\n1,2\n1,2.5\n"},
      {"E-DATA-VALUE", "DV", 2, poisson, "ID,DV\n1,-1\n"},
      {"E-DATA-VALUE", "DV", 2, ordinal, "ID,DV\n1,2\n"},
      {"E-DATA-VALUE", "DV", 2, event, "ID,TIME,DV\n1,3,2\n"},
      {"E-DATA-CENSORING", "CENS", 2, poisson, "ID,DV,CENS\n1,2,1\n"},
      {"E-DATA-CENSORING", "CENS", 2, event, "ID,TIME,DV,CENS\n1,3,0,1\n"},
      {"E-DATA-CENSORING", "LIMIT", 2, event, "ID,TIME,DV,CENS,LIMIT\n1,3,1,1,3\n"},
      {"E-DATA-CENSORING", "", 3, event, "ID,TIME,DV,CENS,LIMIT\n1,3,0,0,.\n1,5,1,1,2\n"},
      {"E-DATA-EVENTS", "", 3, event, "ID,TIME,DV\n1,3,1\n1,5,0\n"},
      {"E-DATA-EVENTS", "", 2,
       std::string(weibull_model) + "cumulative_hazard = \"(t / scale)^shape * x\"\n",
       "ID,TIME,DV,x\n1,3,0,1\n1,5,1,2\n"},
      {"E-DATA-EVENTS", "", 2, solved, "ID,TIME,DV,EVID\n1,3,0,0\n1,5,.,3\n1,6,0,0\n"},
      {"E-RUN-START", "", 3,
       one_effect +
           std::string("[endpoint.y]\nkind = \"binary\"\nprobability = \"a + 3 * b * x\"\n"),
       "ID,DV,x\n1,1,0\n1,1,1\n"},
      {"E-RUN-START", "", 2,
       one_effect + std::string("[endpoint.y]\nkind = \"ordinal\"\nlinear_predictor = \"a\"\n"
                                "thresholds = [\"b\", \"-b\"]\n"),
       "ID,DV\n1,0\n"},
  };
  for (const wrong& c : cases) {
    const finding found = refusal("values", c.model, c.data);
    EXPECT_EQ(found.code, c.code) << c.data << found.message;
    EXPECT_EQ(found.row, c.row) << c.data << found.message;
    EXPECT_EQ(found.column, c.column) << c.data;
  }
}

// Estimates, and their -2 log-likelihood, of quadrature with 41 nodes (21 each for two effects):
// bench/endpoints.R.
struct maximum {
  const char* name;
  std::map<std::string, double> estimates;
  double minus2ll;
};

void expect_maximum(const maximum& exact, method_kind method) {
  SCOPED_TRACE(exact.name);
  const population_model model = model_of(exact.name, [&](model_specification& file) {
    file.estimation.method = method;
    file.estimation.npde_samples = 0;
  });
  const fit_result result = test::fit(model);
  EXPECT_TRUE(result.converged) << result.reason;
  for (std::size_t k = 0; k < model.thetas().size(); ++k) {
    const auto known = exact.estimates.find(model.thetas()[k].name);
    if (known == exact.estimates.end()) continue;
    const double found = result.natural_theta(static_cast<Eigen::Index>(k));
    EXPECT_NEAR(found / known->second, 1.0, 0.01) << known->first;
  }
  EXPECT_NEAR(result.omega(0, 0) / exact.estimates.at("omega"), 1.0, 0.02);
  EXPECT_NEAR(result.likelihood.minus2ll, exact.minus2ll, 0.05);
}

TEST(Endpoints, FitsReachTheMaximaOfQuadrature) {
  const maximum exact[] = {
      {"poisson", {{"base", 2.95020}, {"drug", -0.51618}, {"omega", 0.40742}}, 1385.5180},
      {"ordinal",
       {{"drug", 0.95344}, {"b1", -0.96752}, {"d2", 1.69491}, {"d3", 1.53544}, {"omega", 1.44712}},
       1237.5718},
      {"zero-inflated",
       {{"base", 3.85285}, {"alpha", 0.45188}, {"zeros", -1.32630}, {"omega", 0.34696}},
       2797.4320},
  };
  for (const maximum& one : exact) expect_maximum(one, method_kind::newton);
  expect_maximum(
      {"binary", {{"level", -1.14586}, {"slope", 0.34055}, {"omega", 0.97799}}, 788.9027},
      method_kind::em);
}

// Exact times, intervals and left-censored times in one data set. Its likelihood is flat along a
// line that trades the shape for the variance: the value tells more than the estimates.
TEST(Events, AFrailtyModelReachesItsMaximum) {
  const population_model model = model_of("weibull");
  const fit_result result = test::fit(model);
  EXPECT_TRUE(result.converged) << result.reason;
  EXPECT_NEAR(result.likelihood.minus2ll, 379.4788, 0.05);
  EXPECT_NEAR(result.natural_theta(2) / 1.01314, 1.0, 0.02);
}

// Concentrations and counts of the same subjects, two random effects.
TEST(Endpoints, AJointModelReachesItsMaximum) {
  const population_model model = model_of("joint");
  const fit_result result = test::fit(model);
  EXPECT_TRUE(result.converged) << result.reason;
  const std::map<std::string, double> exact = {{"V", 2.02648},
                                               {"k", 0.19409},
                                               {"base", 3.01726},
                                               {"effect", 0.29786},
                                               {"conc.proportional", 0.20631}};
  for (std::size_t k = 0; k < model.thetas().size(); ++k)
    EXPECT_NEAR(
        result.natural_theta(static_cast<Eigen::Index>(k)) / exact.at(model.thetas()[k].name), 1.0,
        0.01)
        << model.thetas()[k].name;
  EXPECT_NEAR(result.omega(0, 0) / 0.36995, 1.0, 0.02);
  EXPECT_NEAR(result.omega(1, 1) / 0.11858, 1.0, 0.02);
  EXPECT_NEAR(result.likelihood.minus2ll, 883.8006, 0.05);
  // Of the errors of the whole only those of continuous values are left out of the constant.
  EXPECT_NEAR(result.likelihood.minus2ll - result.objective.minus2ll, 200.0 * std::log(2.0 * M_PI),
              1e-9);
}

}  // namespace
}  // namespace varda
