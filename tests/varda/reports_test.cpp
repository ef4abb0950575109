// SPDX-License-Identifier: Apache-2.0
//
// Every report of a result that is made up, in whole; errors and intervals against their formulas;
// and prediction errors against their distribution: a predictive distribution function by
// quadrature, and data that the model made.
#include "varda/report/reports.h"

#include <fmt/format.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <Eigen/Cholesky>
#include <cmath>
#include <fstream>
#include <iterator>
#include <regex>

#include "tests/varda/theophylline.h"
#include "varda/diagnostics/decorrelation.h"
#include "varda/diagnostics/npde.h"
#include "varda/input/model_file.h"
#include "varda/report/matrix_tables.h"
#include "varda/run/diagnose.h"
#include "varda/support/commit.h"
#include "varda/version.h"

namespace varda {
namespace {

double normal_probability(double z) {
  return 0.5 * std::erfc(-z / std::sqrt(2.0));
}

TEST(Npde, IsTheNormalScoreOfASingleObservation) {
  const population_model whole = test::theophylline([](model_specification& file) {
    for (const std::size_t k : {1U, 2U}) file.parameters[k].law = distribution::none;
    file.omega.resize(1);
  });
  dataset data = whole.data();
  for (std::size_t i = 0; i < data.subjects.size(); ++i) {
    subject& who = data.subjects[i];
    const observation kept = who.observations[1 + i % 8];
    who.observations.clear();
    std::erase_if(who.timeline, [](const event& e) { return e.kind == event_kind::observation; });
    append(who, kept);
  }
  const population_model model(whole.specification(), data);
  const Eigen::VectorXd theta = model.start_theta();
  const Eigen::MatrixXd omega = model.start_omega();
  for (int i = 0; i < model.subjects(); ++i) {
    const double y = data.subjects[static_cast<std::size_t>(i)].observations.front().value;
    double below = 0.0;
    constexpr double step = 0.01;
    for (double z = -8.0; z < 8.0; z += step) {
      const double phi = std::log(theta(0)) + std::sqrt(omega(0, 0)) * z;
      const double f = test::predict(model, i, theta, Eigen::VectorXd::Constant(1, phi))(0);
      below += step * std::exp(-0.5 * z * z) / std::sqrt(2.0 * M_PI) *
               normal_probability((y - f) / theta(3));
    }
    const double score = npde(model, i, theta, omega, 20000, 1)(0);
    EXPECT_NEAR(normal_probability(score), below, 4.0 * std::sqrt(below * (1.0 - below) / 20000.0))
        << i;
  }
}

// Beside the factor of the whole matrix, with every kernel: with one block, with means that depend
// on few effects and leave a last block that is not full, more observations than simulations, means
// of full rank, and means that are known.
TEST(Decorrelation, IsThatOfTheCholeskyFactor) {
  enum class shape { any, smooth, constant };
  struct problem {
    Eigen::Index observations;
    Eigen::Index simulations;
    shape means;
  };
  for (const auto& [n, simulations, kind] :
       {problem{1, 9, shape::any}, problem{13, 61, shape::any}, problem{99, 200, shape::smooth},
        problem{160, 120, shape::smooth}, problem{70, 90, shape::any},
        problem{35, 20, shape::constant}}) {
    SCOPED_TRACE(n);
    double state = 0.3;
    const auto next = [&] { return state = 3.9 * state * (1.0 - state); };
    Eigen::MatrixXd means(simulations, n);
    for (Eigen::Index k = 0; k < simulations; ++k) {
      const double rate = 0.5 + next();
      const double size = 10.0 * next();
      for (Eigen::Index j = 0; j < n; ++j) {
        const double time = static_cast<double>(j) / static_cast<double>(n);
        means(k, j) = kind == shape::smooth ? size * std::exp(-rate * time)
                      : kind == shape::any  ? next()
                                            : 2.0;
      }
    }
    const Eigen::VectorXd variances = Eigen::VectorXd::NullaryExpr(n, [&] { return 0.1 + next(); });
    const Eigen::MatrixXd y = Eigen::MatrixXd::NullaryExpr(11, n, [&] { return 5.0 * next(); });

    const Eigen::RowVectorXd mean = means.colwise().mean();
    const Eigen::MatrixXd centred = means.rowwise() - mean;
    Eigen::MatrixXd covariance =
        centred.transpose() * centred / (static_cast<double>(simulations) - 1.0);
    covariance.diagonal() += variances;
    const Eigen::MatrixXd factor = covariance.llt().matrixL();
    const Eigen::MatrixXd from_mean = (y.rowwise() - mean).transpose();
    const Eigen::MatrixXd expected = factor.triangularView<Eigen::Lower>().solve(from_mean);

    const auto found = decorrelation::of(means, variances, 1e-10);
    ASSERT_TRUE(found);
    decorrelation::sequence one(*found);
    for (Eigen::Index j = 0; j < n; ++j) {
      const double in_sequence = (y(3, j) - one.expected()) / one.deviation();
      EXPECT_NEAR(in_sequence, expected(j, 3), 1e-8) << j;
      EXPECT_NEAR(one.deviation(), factor(j, j), 1e-8) << j;
      one.append(in_sequence);
    }
    Eigen::MatrixXd all = y;
    found->apply(all, *lane_kernel_named("sse2"));
    EXPECT_LT((all.transpose() - expected).cwiseAbs().maxCoeff(), 1e-8);
    if (const lane_kernel* wide = lane_kernel_named("avx2")) {
      Eigen::MatrixXd again = y;
      found->apply(again, *wide);
      EXPECT_EQ(again, all);
    }
    const auto usual = decorrelation::of(means, variances);
    ASSERT_TRUE(usual);
    all = y;
    usual->apply(all);
    EXPECT_LT((all.transpose() - expected).norm(), 1e-4 * expected.norm());
  }
  EXPECT_FALSE(decorrelation::of(Eigen::MatrixXd::Random(9, 2), Eigen::Vector2d(1.0, 0.0)));
}

TEST(Npde, IsStandardNormalForDataThatTheModelMade) {
  const residual_error additive{error_kind::additive, 1.0};
  const residual_error student{error_kind::additive, 0.8, 0.0, false, false, 0.0, false, 3.0};
  const residual_error box_cox{error_kind::box_cox, 0.4, 0.0, false, false, 0.0, false, 0.0, 0.5};
  for (const auto& [limit, error] :
       {std::pair{0.0, additive}, std::pair{4.0, additive}, std::pair{-1e300, student},
        std::pair{1.0, student}, std::pair{-1e300, box_cox}, std::pair{1.0, box_cox}}) {
    const population_model model =
        test::simulated(test::theophylline([&error = error](model_specification& file) {
                          file.endpoints.front().residual = error;
                          if (error.kind == error_kind::box_cox)
                            file.data.drop = "EVID == 0 && TIME == 0";
                        }),
                        10, 3, limit);
    double sum = 0.0;
    double squares = 0.0;
    double n = 0.0;
    for (int i = 0; i < model.subjects(); ++i) {
      const Eigen::VectorXd errors =
          npde(model, i, model.start_theta(), model.start_omega(), 500, 1);
      sum += errors.sum();
      squares += errors.squaredNorm();
      n += static_cast<double>(errors.size());
    }
    EXPECT_NEAR(sum / n, 0.0, 4.0 / std::sqrt(n)) << limit;
    EXPECT_NEAR(squares / n, 1.0, 4.0 * std::sqrt(2.0 / n)) << limit;
  }
}

// With so many observations a covariance of the simulated values would leave those observed with
// about twice the variance.
TEST(Npde, AreAsWideAsTheyShouldBeForLongSubjects) {
  constexpr int observations = 300;
  for (const int simulations : {500, 250}) {
    const population_model whole = test::theophylline();
    dataset data = whole.data();
    for (subject& who : data.subjects) {
      const observation kept = who.observations.back();
      who.observations.clear();
      std::erase_if(who.timeline, [](const event& e) { return e.kind == event_kind::observation; });
      for (int k = 1; k <= observations; ++k) {
        observation next = kept;
        next.time = 24.0 * k / observations;
        append(who, next);
      }
    }
    const population_model model =
        test::simulated(population_model(whole.specification(), data), 1, 4);
    double sum = 0.0;
    double squares = 0.0;
    double n = 0.0;
    for (int i = 0; i < model.subjects(); ++i) {
      const Eigen::VectorXd errors =
          npde(model, i, model.start_theta(), model.start_omega(), simulations, 1);
      sum += errors.sum();
      squares += errors.squaredNorm();
      n += static_cast<double>(errors.size());
    }
    EXPECT_NEAR(sum / n, 0.0, 4.0 / std::sqrt(n)) << simulations;
    EXPECT_NEAR(squares / n, 1.0, 4.0 * std::sqrt(2.0 / n)) << simulations;
  }
}

const std::string report_folder = SOURCE_FOLDER "/tests/varda/reports/";

void replace_every(std::string& text, const std::string& what, const std::string& by) {
  for (std::size_t at = 0; (at = text.find(what, at)) != std::string::npos; at += by.size())
    text.replace(at, what.size(), by);
}

// Numbers within their last digits, everything between them to the letter. Settings and versions
// are left out.
void expect_file(const std::string& name, std::string text) {
  std::ifstream file(report_folder + name);
  const std::string expected{std::istreambuf_iterator<char>(file), {}};
  replace_every(text, fmt::format("varda {}, commit {}\n", version, commit()), "");
  replace_every(text, std::string("varda ") + version, "varda VERSION");
  const std::size_t settings = text.find("  \"settings\": {");
  if (settings != std::string::npos) text.erase(settings);
  const std::regex number("-?[0-9]+(\\.[0-9]+)?([eE][-+]?[0-9]+)?");
  EXPECT_EQ(std::regex_replace(text, number, "#"), std::regex_replace(expected, number, "#"))
      << name;
  std::sregex_iterator found(text.begin(), text.end(), number);
  for (std::sregex_iterator wanted(expected.begin(), expected.end(), number);
       wanted != std::sregex_iterator() && found != std::sregex_iterator(); ++wanted, ++found) {
    const double value = std::stod(wanted->str());
    EXPECT_NEAR(std::stod(found->str()), value, 1e-11 * std::fabs(value))
        << name << " at: " << text.substr(static_cast<std::size_t>(found->position()), 60);
  }
}

subject_integral integral(double log_likelihood, double first, double second, double effective,
                          double weight) {
  subject_integral s;
  s.log_likelihood = log_likelihood;
  s.mean = Eigen::Vector2d(first, second);
  s.covariance = (Eigen::Matrix2d() << 0.04, 0.01, 0.01, 0.09).finished();
  s.effective_samples = effective;
  s.largest_weight = weight;
  return s;
}

// Of the kind whose standard errors begin with `first`: no figure stands twice.
std::vector<estimate_error> made_up_errors(double first) {
  std::vector<estimate_error> errors;
  for (int k = 0; k < 6; ++k)
    errors.push_back({first + 0.1 * k, 10.0 * first + k, 100.0 * first + k, 200.0 * first + k});
  return errors;
}

covariance_estimate made_up_covariance(double variance) {
  Eigen::MatrixXd covariance = Eigen::MatrixXd::Constant(6, 6, 0.25 * variance);
  covariance.diagonal().setLinSpaced(variance, 6.0 * variance);
  return {true, "", covariance};
}

fit_result made_up_result(const population_model& model) {
  fit_result r;
  r.converged = true;
  r.reason = "made up";
  r.theta.resize(6);
  r.theta << 0.4, 3.2, 20.0, 0.2, -0.3, 0.12;
  r.omega.resize(2, 2);
  r.omega << 0.25, 0.06, 0.06, 0.16;
  r.iterations = {{1, 60.0, 0.5 * r.theta, model.start_omega()}, {2, 50.2, r.theta, r.omega}};
  r.held_by_bounds = {1};
  r.omega_condition = 1.3 / 0.7;
  r.likelihood_samples = 256;
  r.likelihood = {true, 50.0, 0.25, {49.5, 50.25, 50.75}, {}, {}};
  r.likelihood.subjects = {
      integral(-7.0, 0.3, -0.1, 120.0, 0.02), integral(-8.0, -0.1, 0.2, 80.0, 0.03),
      integral(0.0, 0.0, 0.0, 10.0, 0.9), integral(-10.0, 0.2, -0.4, 100.0, 0.05)};
  r.health = {{0.5, 0.01, 0.25, 0.0, 0.1, false, 240},
              {0.1, 0.02, 0.75, 0.125, 0.2, true, 800},
              {},
              {0.4, 0.04, -INFINITY, 0.0, 0.1, false, 250}};
  // Start 2 ends where start 0 does.
  r.starts = {{0, true, {}, "made up", 50.0, 0.25, r.theta, r.omega, true},
              {1, false, {}, "lost", NAN, NAN, r.theta, r.omega, false},
              {2, true, {}, "made up", 50.0625, 0.25, r.theta, r.omega, false},
              {3, false, {"omega(CL)"}, "small", 49.5, 0.5, r.theta, r.omega, false}};
  r.likelihood.by_subject.resize(3, 4);  // -2 log-likelihoods 1.5, 2.5, -3.5 and so on
  for (int i = 0; i < 4; ++i)
    r.likelihood.by_subject.col(i) = -0.5 * Eigen::Vector3d(1.5 + i, 2.5 + i, -3.5 - i);
  r.quadrature = {true, 5, 25, 50.5, {-7.125, -8.0625, 0.0, -10.0625}, {}};
  r.errors.shown = standard_error_kind::sandwich;
  r.errors.names = {"ka", "CL", "proportional", "omega(ka)", "omega(CL,ka)", "omega(CL)"};
  r.errors.theta = {0, 1, 5, -1, -1, -1};
  r.errors.omega = {{-1, -1}, {-1, -1}, {-1, -1}, {0, 0}, {1, 0}, {1, 1}};
  r.errors.known = {1, 1, 1, 1, 0, 1};
  r.errors.by_information = made_up_errors(1.0);
  r.errors.by_score = made_up_errors(2.0);
  r.errors.by_sandwich = made_up_errors(3.0);
  r.errors.information = made_up_covariance(1.0);
  r.errors.score = made_up_covariance(2.0);
  r.errors.sandwich = made_up_covariance(4.0);
  r.errors.correlation = Eigen::MatrixXd::Constant(6, 6, -0.125);
  r.errors.correlation.diagonal().setOnes();
  r.errors.correlation.row(4).setConstant(NAN);
  r.errors.correlation.col(4).setConstant(NAN);
  r.errors.eigenvalues = Eigen::VectorXd::LinSpaced(6, 0.375, 1.625);
  r.errors.condition_number = 13.0 / 3.0;
  r.errors.unidentified = "+0.71 ka -0.70 CL";
  r.errors.from_scores = {"ka", "CL, omega(ka)"};
  r.kept_factors = 2;
  r.warnings = {{.level = severity::warning, .code = "W-MADE-UP", .message = "not a real one"}};
  const auto digest = [](char digit) { return std::string(64, digit); };
  r.source = {digest('a'), digest('b'), digest('c'), digest('d')};
  r.times = {0.125, 0.25, 0.375, 0.5, 0.625, 0.75, 2.75};
  r.processes = 3;
  r.why_one_thread = "the cores are few";
  r.evaluations = 1234;
  return r;
}

population_model made_up_model() {
  findings warnings;
  model_specification file = read_model_file(report_folder + "model.toml", warnings);
  dataset data = read_dataset(file.data, warnings);
  // Where lines break must not depend on where the sources lie.
  file.path = "model.toml";
  data.file = "data.csv";
  return {std::move(file), std::move(data)};
}

// The figures of the files were worked out from the result above outside the program.
TEST(Reports, OfAMadeUpResult) {
  const population_model model = made_up_model();
  fit_result result = made_up_result(model);
  diagnose(model, job(nullptr, nullptr), no_progress, result);
  EXPECT_TRUE(result.npde.empty());
  result.npde = {Eigen::Vector2d(0.5, -1.5), Eigen::Vector2d(NAN, 2.5), {}, Eigen::Vector2d(1, -1)};
  expect_file("page_one.txt", summary(model, result));
  expect_file("fit.json", whole(json_report(model, result)));
  expect_file("estimates.csv", estimates_csv(model, result));
  expect_file("iterations.csv", iterations_csv(model, result));
  expect_file("subjects.csv", whole(subjects_csv(model, result)));
  expect_file("rows.csv", whole(rows_csv(model, result)));
  expect_file("fit.ext", ext_table(model, result));
  expect_file("fit.phi", whole(phi_table(model, result)));
  expect_file("fit.cov", cov_table(model, result));
  expect_file("fit.cor", cor_table(model, result));
  expect_file("legend.csv", legend_csv(model));
}

TEST(Reports, OfAStoppedRunSayWhatIsNotKnown) {
  const population_model model = made_up_model();
  fit_result result = made_up_result(model);
  result.likelihood.complete = false;
  result.quadrature = {};
  result.errors = {};
  result.likelihood.by_subject.resize(0, 0);
  diagnose(model, job(nullptr, nullptr), no_progress, result);
  const std::string page = summary(model, result);
  EXPECT_THAT(page, testing::HasSubstr("-2 log-likelihood            not computed\n"));
  EXPECT_THAT(page, testing::ContainsRegex("\n  CL +0.16 +41.7 +-\n"));
  const std::string json = whole(json_report(model, result));
  EXPECT_THAT(json, testing::HasSubstr("\"minus2ll_without_constant\": null"));
  EXPECT_THAT(json, testing::HasSubstr("\"shrinkage\": [\n      null,\n      null\n    ]"));
  EXPECT_THAT(json, testing::HasSubstr("\"subjects\": []"));
  for (const std::string& table :
       {whole(rows_csv(model, result)), whole(subjects_csv(model, result))})
    EXPECT_EQ(table.find('\n'), table.size() - 1);
}

TEST(Reports, OfAFitThatIdentifiesNothingHaveNoEigenvalues) {
  const population_model model = made_up_model();
  fit_result result = made_up_result(model);
  result.errors.correlation.setConstant(NAN);
  result.errors.eigenvalues.resize(0);
  diagnose(model, job(nullptr, nullptr), no_progress, result);
  EXPECT_THAT(
      summary(model, result),
      testing::HasSubstr("\nNo standard errors: the data identify none of the parameters.\n"));
  EXPECT_THAT(ext_table(model, result), testing::Not(testing::HasSubstr("-1000000002")));
}

// Each quantity's standard error by the delta method, and the ends of its interval carried over
// from the scale on which it is symmetric.
TEST(Reports, ErrorsAndIntervalsFollowFromTheCovariances) {
  constexpr double low = 0.5;
  constexpr double high = 4.5;
  const population_model model = test::theophylline([](model_specification& file) {
    file.parameters[0].law = distribution::logit_normal;
    file.parameters[0].range_lower = low;
    file.parameters[0].range_upper = high;
    file.parameters[2].law = distribution::normal;
    file.omega = {{{"ka", "CL"}, {0.3, 0.02, 0.02, 0.1}, false}, {{"V"}, {16.0}, false}};
  });
  const fit_result result = test::fit(model);
  const double ka = low + (high - low) / (1.0 + std::exp(-result.theta(0)));
  EXPECT_NEAR(result.natural_theta(0), ka, 1e-12);
  const auto logit = [](double psi) { return low + (high - low) / (1.0 + std::exp(-psi)); };
  const auto exponential = [](double psi) { return std::exp(psi); };
  const auto same = [](double psi) { return psi; };
  struct quantity {
    double estimate, slope;  // natural scale; of it against the covariance's
    double centre, stretch;  // of the interval; of its scale against the covariance's
    std::function<double(double)> back;
  };
  const Eigen::VectorXd& t = result.theta;
  const Eigen::MatrixXd& o = result.omega;
  const auto variance = [&](double v) {
    return quantity{v, 1.0, std::log(v), 1.0 / v, exponential};
  };
  const std::vector<quantity> quantities = {
      {ka, (ka - low) * (high - ka) / (high - low), t(0), 1.0, logit},
      {t(1), t(1), std::log(t(1)), 1.0, exponential},
      {t(2), 1.0, t(2), 1.0, same},
      {t(3), t(3), std::log(t(3)), 1.0, exponential},
      variance(o(0, 0)),
      {o(1, 0), 1.0, o(1, 0), 1.0, same},
      variance(o(1, 1)),
      variance(o(2, 2))};
  const auto near = [](double value, double expected) {
    EXPECT_NEAR(value, expected, 1e-10 * std::fabs(expected));
  };
  const standard_errors& all = result.errors;
  for (const auto& [covariance, errors] :
       {std::pair(&all.information, &all.by_information), std::pair(&all.score, &all.by_score),
        std::pair(&all.sandwich, &all.by_sandwich)}) {
    ASSERT_EQ(errors->size(), quantities.size());
    for (std::size_t k = 0; k < quantities.size(); ++k) {
      const quantity& q = quantities[k];
      const estimate_error& e = (*errors)[k];
      const auto at = static_cast<Eigen::Index>(k);
      const double deviation = std::sqrt(covariance->covariance(at, at));
      const double reach = 1.9599639845400545 * q.stretch * deviation;  // R's qnorm(0.975)
      SCOPED_TRACE(all.names[k]);
      near(e.se, q.slope * deviation);
      near(e.rse_percent, 100.0 * e.se / std::fabs(q.estimate));
      near(e.ci_lower, q.back(q.centre - reach));
      near(e.ci_upper, q.back(q.centre + reach));
    }
  }
}

}  // namespace
}  // namespace varda
