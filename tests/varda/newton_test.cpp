// SPDX-License-Identifier: Apache-2.0
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <Eigen/Cholesky>
#include <cmath>
#include <fstream>
#include <numbers>
#include <sstream>

#include "tests/support/fake_host.h"
#include "tests/varda/theophylline.h"
#include "varda/host/engine_host.h"
#include "varda/inference/minimise.h"
#include "varda/inference/pareto_shape.h"
#include "varda/input/model_file.h"
#include "varda/method/newton/moments.h"
#include "varda/method/newton/newton.h"
#include "varda/method/newton/startup.h"
#include "varda/support/archive.h"

namespace varda {
namespace {

using test::captured_unit;

// A full omega, a covariate, a parameter without random effect, an error with two parameters and a
// censored observation: every kind of coordinate.
population_model every_coordinate(const residual_error& error) {
  const population_model plain = test::theophylline([&error](model_specification& file) {
    file.parameters[0].law = distribution::none;
    file.parameters[0].start = 1.5;
    covariate_effect weight;
    weight.name = "CL_WT";
    weight.covariate = "WT";
    weight.center = 70.0;
    weight.start = 0.4;
    file.parameters[1].effects = {weight};
    file.data.covariates = {"WT"};
    file.omega = {{{"CL", "V"}, {0.08, 0.02, 0.02, 0.03}, false}};
    file.endpoints.front().residual = error;
  });
  dataset data = plain.data();
  // One deviation with nothing censored has derivatives of its own.
  if (error.kind != error_kind::proportional)
    data.subjects[2].observations[9].censored = censoring::left;
  // At time 0 the prediction is 0, which an error that is a power cannot take.
  for (subject& who : data.subjects) {
    const subject whole = who;
    who.observations.clear();
    who.doses.clear();
    who.timeline.clear();
    for (const dose& given : whole.doses) append(who, given);
    for (const observation& made : whole.observations)
      if (made.time > 0.0) append(who, made);
  }
  return {plain.specification(), data};
}

residual_error error_of(error_kind kind, double degrees_of_freedom = 0.0) {
  return {kind, 0.5, 0.1, false, false, 0.8, false, degrees_of_freedom, 0.5};
}

// Fisher's and Louis' identities against differences of the sampled log-likelihood itself.
class SubjectSampler : public testing::TestWithParam<residual_error> {};

TEST_P(SubjectSampler, DerivativesAreThoseOfTheSampledLikelihood) {
  const population_model model = every_coordinate(GetParam());
  const job alone(nullptr, nullptr);
  const captured_unit swallowed;
  engine_host host(model, alone);
  const coordinates scale(model);
  ASSERT_EQ(scale.size(), 7 + static_cast<int>(model.observed().parameters().size()));
  subject_draw drawn;
  subject_draw undivided;
  const draw_component about{1.0, Eigen::Vector2d(1.1, 3.4),
                             Eigen::Vector2d(0.25, 0.2).asDiagonal()};
  const Eigen::VectorXd psi = scale.of(host.theta(), host.omega());
  const Eigen::VectorXd drawn_at = host.theta();
  subject_drawer(host.joint(), host.points()).draw(2, drawn_at, {about}, {{}, 16, 4, 0, 4}, drawn);
  undivided = drawn;
  undivided.groups = 1;
  subject_sampler sampler(host.joint(), scale);
  std::int64_t evaluations = 0;
  struct measured {
    double log_likelihood;
    subject_details details;
  };
  const auto at = [&](const Eigen::VectorXd& where, const subject_draw& samples) {
    measured result;
    result.log_likelihood =
        sampler
            .measure(2, samples, drawn_at, measure_point(scale, where, host.theta(), host.omega()),
                     detail::derivatives, result.details, evaluations)
            .log_likelihood;
    return result;
  };
  const subject_details corrected = at(psi, drawn).details;
  const subject_details found = at(psi, undivided).details;
  EXPECT_GT((corrected.gradient - found.gradient).norm(), 1e-3);
  const double step = 1e-4;
  for (Eigen::Index k = 0; k < psi.size(); ++k) {
    const Eigen::VectorXd by = step * Eigen::VectorXd::Unit(psi.size(), k);
    const std::string& name = scale.entries()[static_cast<std::size_t>(k)].name;
    EXPECT_NEAR(
        corrected.gradient(k),
        (at(psi + by, drawn).log_likelihood - at(psi - by, drawn).log_likelihood) / (2.0 * step),
        1e-4 * (1.0 + std::fabs(corrected.gradient(k))))
        << name;
    const measured up = at(psi + by, undivided);
    const measured down = at(psi - by, undivided);
    EXPECT_NEAR(found.gradient(k), (up.log_likelihood - down.log_likelihood) / (2.0 * step),
                1e-4 * (1.0 + std::fabs(found.gradient(k))))
        << name;
    const Eigen::VectorXd column = (down.details.gradient - up.details.gradient) / (2.0 * step);
    for (Eigen::Index l = 0; l < psi.size(); ++l)
      EXPECT_NEAR(found.information(l, k), column(l), 2e-3 * (1.0 + std::fabs(column(l))))
          << name << " " << scale.entries()[static_cast<std::size_t>(l)].name;
  }
}

INSTANTIATE_TEST_SUITE_P(
    Errors, SubjectSampler,
    testing::Values(error_of(error_kind::additive), error_of(error_kind::proportional),
                    error_of(error_kind::combined), error_of(error_kind::combined_sd),
                    error_of(error_kind::power), error_of(error_kind::additive, 4.0),
                    error_of(error_kind::combined, 3.0), error_of(error_kind::combined_sd, 5.0),
                    error_of(error_kind::power, 4.0), error_of(error_kind::box_cox),
                    error_of(error_kind::box_cox, 4.0)));

// Of many draws of few points from far too wide a proposal the logarithm of the mean would be too
// small by more than its scatter explains.
TEST(SubjectSampler, TheLogarithmOfAMeanIsCorrected) {
  const population_model model = test::theophylline();
  const job alone(nullptr, nullptr);
  const captured_unit swallowed;
  engine_host host(model, alone);
  const coordinates scale(model);
  const Eigen::VectorXd psi = scale.of(host.theta(), host.omega());
  const measure_point at(scale, psi, host.theta(), host.omega());
  Eigen::VectorXd mu(3);
  model.means(0, host.theta().data(), mu.data());
  const draw_component population{1.0, mu, host.omega().llt().matrixL()};
  subject_drawer drawer(host.joint(), host.points());
  subject_sampler sampler(host.joint(), scale);
  std::int64_t evaluations = 0;
  subject_details details;
  const auto value = [&](int pass, int size, bool divided) {
    subject_draw drawn;
    drawer.draw(0, host.theta(), {population}, {{point_pass::purpose::draw, pass}, size, 4, 0, 4},
                drawn);
    if (!divided) drawn.groups = 1;
    return sampler.measure(0, drawn, host.theta(), at, detail::value, details, evaluations)
        .log_likelihood;
  };
  const double exact = value(0, 1 << 16, false);
  constexpr int draws = 400;
  Eigen::VectorXd plain(draws);
  Eigen::VectorXd corrected(draws);
  for (int pass = 1; pass <= draws; ++pass) {
    plain(pass - 1) = value(pass, 64, false) - exact;
    corrected(pass - 1) = value(pass, 64, true) - exact;
  }
  const double error = std::sqrt((plain.array() - plain.mean()).square().mean() / draws);
  EXPECT_LT(plain.mean(), -4.0 * error);
  EXPECT_NEAR(corrected.mean(), 0.0, 2.0 * error);
  EXPECT_LT(std::fabs(corrected.mean()), -0.3 * plain.mean());
}

// The integral of a likelihood that is normal in phi is known, whatever mixture samples it.
TEST(DrawSubject, AMixtureIsWeighedByItsWholeDensity) {
  const population_model model = test::theophylline();
  const job alone(nullptr, nullptr);
  const captured_unit swallowed;
  engine_host host(model, alone);
  const coordinates scale(model);
  const Eigen::VectorXd psi = scale.of(host.theta(), host.omega());
  subject_sampler sampler(host.joint(), scale);
  const auto value = [&](const std::vector<draw_component>& from) {
    subject_draw drawn;
    subject_drawer(host.joint(), host.points())
        .draw(0, host.theta(), from, {{}, 4096, 4, 0, 4}, drawn);
    std::int64_t evaluations = 0;
    subject_details details;
    return sampler
        .measure(0, drawn, host.theta(), measure_point(scale, psi, host.theta(), host.omega()),
                 detail::value, details, evaluations)
        .log_likelihood;
  };
  mode_finder finder(host.joint());
  const parameter_values now(host.theta(), host.omega());
  Eigen::VectorXd mu(3);
  model.means(0, host.theta().data(), mu.data());
  const normal_posterior mode = finder.search(0, mu, now);
  ASSERT_TRUE(mode.usable);
  draw_component near{1.0, mode.phi, 1.3 * Eigen::MatrixXd(mode.covariance.llt().matrixL())};
  const double alone_value = value({near});
  near.share = 0.5;
  const draw_component population{0.25, mu, host.omega().llt().matrixL()};
  draw_component far = near;
  far.share = 0.25;
  far.centre.array() += 0.5;
  EXPECT_NEAR(value({near, far, population}), alone_value, 0.003);
  EXPECT_NEAR(mode.log_mass, alone_value, 0.1);
}

// Two halves of normal densities: their moments by quadrature, and those of samples, whose density
// must integrate to 1.
TEST(DrawSubject, SplitNormalCoordinatesHaveTheirMoments) {
  for (const double skewness : {-0.8, -0.1, 0.0, 0.5, 3.0}) {
    const split_normal split(skewness);
    Eigen::Vector4d sums = Eigen::Vector4d::Zero();
    constexpr double step = 1e-3;
    for (double x = -12.0; x < 12.0; x += step) {
      const double z = (x - split.mode) / (x < split.mode ? split.left : split.right);
      const double density = std::exp(-0.5 * z * z) / std::sqrt(2.0 * std::numbers::pi) * 2.0 /
                             (split.left + split.right);
      sums += step * density * Eigen::Vector4d(1.0, x, x * x, x * x * x);
    }
    const double wanted = std::min(skewness, split_normal::most_skewness);
    EXPECT_LT((sums - Eigen::Vector4d(1.0, 0.0, 1.0, wanted)).cwiseAbs().maxCoeff(), 1e-6)
        << sums.transpose();
  }

  const population_model model = test::theophylline();
  const job alone(nullptr, nullptr);
  const captured_unit swallowed;
  engine_host host(model, alone);
  Eigen::Matrix3d factor;
  factor << 0.2, 0, 0, 0.1, 0.3, 0, -0.1, 0.05, 0.1;
  const Eigen::Vector3d skewness(0.6, -0.4, 0.2);
  const draw_component of{1.0, Eigen::Vector3d(0.3, 1.1, 3.4), factor, skewness};
  subject_draw drawn;
  subject_drawer(host.joint(), host.points())
      .draw(0, host.theta(), {of}, {{}, 16384, 1, 0, 1}, drawn);
  const Eigen::MatrixXd z =
      factor.triangularView<Eigen::Lower>().solve(drawn.phi.colwise() - of.centre);
  const auto n = static_cast<double>(z.cols());
  EXPECT_LT(z.rowwise().mean().cwiseAbs().maxCoeff(), 1e-3);
  EXPECT_LT((z * z.transpose() / n - Eigen::Matrix3d::Identity()).cwiseAbs().maxCoeff(), 0.01);
  EXPECT_LT((z.array().cube().rowwise().mean().matrix() - skewness).cwiseAbs().maxCoeff(), 0.02);
  const Eigen::ArrayXd normal = -0.5 * z.colwise().squaredNorm().transpose().array() -
                                1.5 * std::log(2.0 * std::numbers::pi) -
                                std::log(factor.diagonal().prod());
  EXPECT_NEAR((normal - drawn.log_proposal.array()).exp().mean(), 1.0, 0.005);
}

// With many random effects and few samples a proposal keeps most of its own covariance, where that
// has served well.
TEST(NewtonMethod, ProposalsFollowFewSamplesOfManyEffectsCarefully) {
  constexpr Eigen::Index d = 20;
  const draw_component before{1.0, Eigen::VectorXd::Zero(d), Eigen::MatrixXd::Identity(d, d)};
  Eigen::VectorXd moments = Eigen::VectorXd::Zero(d + d * d + d);
  moments.segment(d, d * d) = (4.0 * Eigen::MatrixXd::Identity(d, d)).reshaped();
  moments(0) = 0.5;
  moments.tail(d).setConstant(0.1);
  moments(d + d * d) = 1.0;
  const double widening = std::pow(2.0, 1.0 / d);
  const auto variance_after = [&](double share, double samples) {
    draw_component own = before;
    follow_moments(moments, share, share * samples, own);
    EXPECT_EQ(own.centre(0), 0.5);
    EXPECT_NEAR(own.factor(1, 0), 0.0, 1e-15);
    return std::pow(own.factor(0, 0) / widening, 2);
  };
  const double own_variance = std::pow(widening, -2);
  EXPECT_NEAR(variance_after(0.9, 2000.0), 4.0, 1e-12);
  EXPECT_LT(variance_after(0.9, 100.0), own_variance + 0.2);
  EXPECT_GT(variance_after(0.2, 2000.0), 2.5);
  EXPECT_LT(variance_after(0.2, 2000.0), 3.5);

  draw_component own = before;
  follow_moments(moments, 0.9, 1800.0, own);
  EXPECT_NEAR(own.skewness(0), 1.0 - 6.0 / 1800.0, 1e-12);
  EXPECT_NEAR(own.skewness(1), 0.1 - 60.0 / 1800.0, 1e-12);
  follow_moments(moments, 0.9, 500.0, own);
  EXPECT_GT(own.skewness(1), 0.0);
  EXPECT_LT(own.skewness(1), 0.1 - 60.0 / 1800.0);
}

// Eight occasions, each reset before: only the first step differences all pairs of effects, and the
// normal distribution is still that of the whole Hessian.
TEST(ModeFinder, LeavesOutPairsOfOccasionsThatAreApart) {
  findings warnings;
  const model_specification file =
      read_model_file(SOURCE_FOLDER "/tests/varda/trials/many_occasions.toml", warnings);
  const population_model model(file, read_dataset(file.data, warnings));
  const Eigen::Index n = model.random_effects();
  ASSERT_EQ(n, 9);
  const density joint(model);
  const parameter_values at(model.start_theta(), model.start_omega());
  Eigen::VectorXd mu(n);
  model.means(3, at.theta.data(), mu.data());
  mode_finder finder(joint);
  const normal_posterior found = finder.search(3, mu, at);
  ASSERT_TRUE(found.usable);
  const auto all = 1 + 2 * n + n * (n - 1);
  EXPECT_LT(finder.evaluations(), 5 * all);

  const auto value = [&](const Eigen::VectorXd& off) {
    return finder.log_density(3, found.phi + off, at)(0);
  };
  constexpr double h = 1e-3;
  const Eigen::MatrixXd unit = h * Eigen::MatrixXd::Identity(n, n);
  Eigen::MatrixXd precision(n, n);
  for (Eigen::Index k = 0; k < n; ++k) {
    const double slope = (value(unit.col(k)) - value(-unit.col(k))) / (2.0 * h);
    EXPECT_LT(slope * slope * found.covariance(k, k), 1e-5);
    for (Eigen::Index l = 0; l < n; ++l)
      precision(k, l) = -(value(unit.col(k) + unit.col(l)) - value(unit.col(k) - unit.col(l)) -
                          value(unit.col(l) - unit.col(k)) + value(-unit.col(k) - unit.col(l))) /
                        (4.0 * h * h);
  }
  EXPECT_LT((precision * found.covariance - Eigen::MatrixXd::Identity(n, n)).norm(), 0.01);
}

// A group that is drawn by itself is that group of the whole, mixtures included.
TEST(DrawSubject, AGroupIsTheSameAlone) {
  const population_model model = test::theophylline();
  const job alone(nullptr, nullptr);
  const captured_unit swallowed;
  engine_host host(model, alone);
  const draw_component near{0.7, Eigen::Vector3d(0.3, 1.1, 3.4), 0.2 * Eigen::Matrix3d::Identity()};
  const draw_component far{0.3, Eigen::Vector3d(0.1, 1.0, 3.5), 0.5 * Eigen::Matrix3d::Identity()};
  const draw_plan plan{{point_pass::purpose::trial, 3}, 64, 4, 0, 4};
  subject_drawer drawer(host.joint(), host.points());
  subject_draw whole;
  subject_draw part;
  drawer.draw(5, host.theta(), {near, far}, plan, whole);
  drawer.draw(5, host.theta(), {near, far}, plan.alone(2), part);
  EXPECT_EQ(part.phi, whole.phi.middleCols(128, 64));
  EXPECT_EQ(part.predictions, whole.predictions.middleRows(128, 64));
  EXPECT_EQ(part.log_proposal, whole.log_proposal.segment(128, 64));
}

// Draws that there is no memory for are made again, to the last bit: a fit takes the same steps.
TEST(NewtonMethod, StepsDoNotDependOnTheMemoryForDraws) {
  const population_model model = test::theophylline();
  const job alone(nullptr, nullptr);
  const captured_unit swallowed;
  const auto steps_with = [&](std::size_t memory) {
    engine_host host(model, alone);
    const newton_method method(host, memory);
    run_state state;
    method.begin(state);
    while (!state.ended) EXPECT_TRUE(method.step(state));
    return state;
  };
  // Of twelve subjects, some at 256 points and more.
  const run_state some = steps_with(200000);
  const run_state none = steps_with(0);
  const run_state all = steps_with(1UL << 30);
  ASSERT_GT(all.records.size(), 2U);
  for (const run_state* other : {&some, &none}) {
    EXPECT_EQ(other->theta, all.theta);
    EXPECT_EQ(other->omega, all.omega);
    ASSERT_EQ(other->records.size(), all.records.size());
    EXPECT_EQ(other->records.back().minus2ll, all.records.back().minus2ll);
    EXPECT_EQ(other->newton.gain_ahead, all.newton.gain_ahead);
  }
}

TEST(ParetoShape, TellsHeavyTailsFromLightOnes) {
  // Weights (1 - u)^-k have the tail of shape k.
  for (const double shape : {0.3, 0.9}) {
    Eigen::VectorXd weights(4000);
    for (Eigen::Index j = 0; j < weights.size(); ++j)
      weights(j) = std::pow((static_cast<double>(j) + 0.5) / 4000.0, -shape);
    EXPECT_NEAR(pareto_shape(weights), shape, 0.1);
  }
  EXPECT_LT(pareto_shape(Eigen::VectorXd::Constant(1000, 0.001)), 0.0);
}

TEST(NewtonMethod, IsTakenUpWhereItWasLeft) {
  const population_model model = test::theophylline();
  const job alone(nullptr, nullptr);
  const captured_unit swallowed;
  std::stringstream written;
  const auto finish = [](const newton_method& method, run_state& state) {
    while (!state.ended) EXPECT_TRUE(method.step(state));
    return state.records.back();
  };
  iteration_record whole;
  {
    engine_host host(model, alone);
    const newton_method method(host);
    run_state state;
    method.begin(state);
    for (int k = 0; k < 2; ++k) ASSERT_TRUE(method.step(state));
    archive_writer to(written);
    to(state);
    whole = finish(method, state);
    EXPECT_TRUE(method.conclude(state).converged);
  }
  engine_host host(model, alone);
  run_state state;
  archive_reader from(written);
  from(state);
  host.set_theta(state.theta);
  host.set_omega(state.omega);
  const iteration_record resumed = finish(newton_method(host), state);
  EXPECT_EQ(resumed.minus2ll, whole.minus2ll);
  EXPECT_EQ(resumed.theta, whole.theta);
  EXPECT_EQ(resumed.omega, whole.omega);
}

// Start values that are far off, and data far more precise than they say, end at the same maximum.
// There are two: with absorption faster than elimination, and the other way round, where a variance
// vanishes at -2 log-likelihood 354.446.
TEST(NewtonMethod, ReachesAMaximumFromPoorStarts) {
  for (const double factor : {0.2, 6.0}) {
    const population_model model = test::theophylline([&](model_specification& file) {
      file.parameters[0].start = 1.5 * std::sqrt(factor);
      file.parameters[1].start = 2.8 * factor;
      file.parameters[2].start = 32.0 / factor;
      for (omega_block& block : file.omega) block.matrix = {factor};
      file.endpoints.front().residual.additive = 2.0;
      file.estimation.npde_samples = 0;
    });
    const fit_result result = test::fit(model);
    if (result.converged) {
      EXPECT_NEAR(result.likelihood.minus2ll, 360.7007, 0.02);
    } else {
      EXPECT_THAT(result.singular, testing::ElementsAre("omega(ka)")) << result.reason;
      EXPECT_NEAR(result.likelihood.minus2ll, 354.446, 0.02);
      ASSERT_FALSE(result.warnings.empty());
      EXPECT_EQ(result.warnings.back().code, "W-RUN-FLIP-FLOP");
    }
  }
}

// Theophylline with `prediction`, and a factor S without a random effect.
population_model with_prediction(const std::string& prediction, double variance_of_ka = 0.3) {
  return test::theophylline([&](model_specification& file) {
    file.structure.name = formula_structure;
    file.structure.equations.parameters = {"ka", "CL", "V", "S"};
    file.structure.equations.outputs = {{"prediction", prediction}};
    parameter factor = file.parameters.front();
    factor.name = "S";
    factor.law = distribution::none;
    factor.start = 1.0;
    file.parameters.push_back(factor);
    file.omega.front().matrix = {variance_of_ka};
    file.estimation.npde_samples = 0;
  });
}

const std::string oral = "dose * ka / (V * (ka - CL / V)) * (exp(-CL / V * tad) - exp(-ka * tad))";

// Searches side by side end where each would end alone, after the same points.
TEST(MinimiseTogether, IsOneSearchAfterTheOther) {
  const auto valley = [](const Eigen::VectorXd& x) {
    return std::pow(1.0 - x(0), 2) + 10.0 * std::pow(x(1) - x(0) * x(0), 2);
  };
  const std::vector<Eigen::VectorXd> starts = {
      Eigen::Vector2d(-1.2, 1.0), Eigen::Vector2d(1.0, 1.0), Eigen::Vector2d(3.0, -2.0)};
  const Eigen::VectorXd step = Eigen::Vector2d(0.3, 0.3);
  std::size_t asked = 0;
  std::size_t rounds = 0;
  const auto all = [&](const std::vector<asked_point>& points) {
    ++rounds;
    asked += points.size();
    std::vector<double> values;
    for (const asked_point& p : points) values.push_back(valley(p.x));
    return values;
  };
  const std::vector<minimum> found = minimise_together(all, starts, step, 1e-4);
  std::size_t alone = 0;
  std::size_t longest = 0;
  for (std::size_t s = 0; s < starts.size(); ++s) {
    std::size_t own = 0;
    const minimum expected = minimise(
        [&](const Eigen::VectorXd& x) {
          ++own;
          return valley(x);
        },
        starts[s], step, 1e-4);
    EXPECT_EQ(found[s].x, expected.x);
    EXPECT_EQ(found[s].value, expected.value);
    alone += own;
    longest = std::max(longest, own);
  }
  EXPECT_EQ(asked, alone);
  EXPECT_EQ(rounds, longest);
  const auto failing = [&](const std::vector<asked_point>& points) {
    if (points.size() < starts.size()) throw std::runtime_error("no more");
    return all(points);
  };
  EXPECT_THROW(minimise_together(failing, starts, step, 1e-4), std::runtime_error);
}

// A proportional error of many times the prediction explains any data by predictions that vanish
// (without the price of that: CL 38, V 24, deviation 14), and nothing leads back from there.
TEST(NewtonMethod, ScreeningDoesNotEndWherePredictionsVanish) {
  const population_model far = test::theophylline([](model_specification& file) {
    file.parameters[0].start = 1.2;
    file.parameters[1].start = 3000.0;
    file.parameters[2].start = 35.0;
    file.data.drop = "TIME == 0 && EVID == 0";
    file.endpoints.front().residual = {error_kind::proportional, 0.0, 0.2};
  });
  const job alone(nullptr, nullptr);
  const captured_unit swallowed;
  engine_host host(far, alone);
  const Eigen::VectorXd theta = pooled_start(host);
  EXPECT_LT(theta(3), 1.0);
  EXPECT_GT(theta(1), 1.0);
  EXPECT_LT(theta(1), 10.0);
}

// Two compartments with saturable elimination: Vm and Km go together but for little, which few
// samples do not show and the scores of the subjects do. No draw may call them flat.
TEST(NewtonMethod, KnowsWhatIsWeaklyIdentifiedFromWhatIsNot) {
  std::ofstream csv("saturable.csv");
  csv << "ID,TIME,AMT,DV\n";
  for (int i = 1; i <= 30; ++i) {
    csv << i << ",0," << (i % 3 + 1) * (i % 3 + 1) * 70 << ",.\n";
    for (const double t : {0.5, 1.0, 2.0, 4.0, 6.0, 8.0, 12.0, 16.0, 20.0, 24.0})
      csv << i << ',' << t << ",.,1\n";
  }
  csv.close();
  std::ofstream("saturable.toml")
      << "data = { file = \"saturable.csv\" }\n"
         "[model]\nstructure = \"two-compartment michaelis-menten intravenous\"\n"
         "[parameters]\nVm = { start = 10 }\nKm = { start = 1, distribution = \"none\" }\n"
         "V1 = { start = 30 }\nQ = { start = 5 }\nV2 = { start = 30 }\n"
         "[omega]\nVm = 0.06\nV1 = 0.06\nQ = 0.06\nV2 = 0.06\n"
         "[residual]\nerror = \"proportional\"\nproportional = 0.1\n";
  findings warnings;
  const model_specification file = read_model_file("saturable.toml", warnings);
  const population_model design(file, read_dataset(file.data, warnings));
  const population_model model = test::simulated(design, 1, 5);
  const job alone(nullptr, nullptr);
  const captured_unit swallowed;
  engine_host host(model, alone);
  const newton_method method(host);
  run_state state;
  method.begin(state);
  ASSERT_TRUE(method.settle(state));
  const Eigen::VectorXd psi = method.scale().of(host.theta(), host.omega());
  int weak = 0;
  int of_scores = 0;
  for (int d = 1; d <= 12; ++d) {
    whole_draw drawn;
    ASSERT_TRUE(method.draw(state, {point_pass::purpose::draw, d}, 1024, 4, drawn));
    const draw_measure found = method.measure(drawn, psi, detail::derivatives);
    for (const weak_direction& w : method.weak_directions(drawn, psi, found)) {
      ++weak;
      EXPECT_FALSE(w.is_flat()) << method.names_along(w.along);
      if (w.is_of_scores() && method.is_of_fixed_effects(w.along)) {
        ++of_scores;
        draw_measure stiffer = found;
        method.stiffen({w}, drawn, psi, stiffer);
        if (found.definite) {
          EXPECT_LT(stiffer.noise, found.noise);
        }
        EXPECT_NE(stiffer.noise, found.noise);
      }
      std::vector<Eigen::VectorXd> none;
      EXPECT_TRUE(method.invert(newton_method::strengthened(found.information, {w}), none).known ||
                  w.added == 0.0);
    }
  }
  EXPECT_GT(weak, 0);
  EXPECT_GT(of_scores, 0);
}

// Two factors of the dose: the fit ends, says which they are, and knows the errors of the others.
TEST(NewtonMethod, NamesParametersThatTheDataDoNotTellApart) {
  const population_model model = with_prediction("S * " + oral);
  const fit_result result = test::fit(model);
  EXPECT_FALSE(result.converged);
  // V = CL / k goes with CL.
  EXPECT_THAT(result.unidentified, testing::ElementsAre("CL, V, S"));
  EXPECT_THAT(result.reason, testing::StartsWith("the data cannot distinguish CL, V, S"));
  EXPECT_NEAR(result.likelihood.minus2ll, 360.7, 0.03);
  const standard_errors& errors = result.errors;
  EXPECT_EQ(errors.place_of_theta(1), -1);
  EXPECT_EQ(errors.place_of_theta(2), -1);
  EXPECT_EQ(errors.place_of_theta(3), -1);
  const int ka = errors.place_of_theta(0);
  ASSERT_GE(ka, 0);
  const fit_result plain = test::fit(test::theophylline());
  EXPECT_NEAR(errors.chosen()[static_cast<std::size_t>(ka)].se, plain.errors.chosen()[0].se,
              0.05 * plain.errors.chosen()[0].se);
  for (const double value : result.theta) EXPECT_TRUE(std::isfinite(value));
}

// Subjects whose ka lies about 1.5 fail in half of their samples.
TEST(NewtonMethod, DoesNotConvergeWhereTheModelCannotBeEvaluated) {
  // In a share of every neighbourhood, so that no estimate leads out of it.
  const population_model model =
      with_prediction("S * 0 + " + oral + " + 0 * log(0.3 + sin(100 * log(ka)))");
  for (const fit_result& result : {test::fit(model), test::evaluate(model)}) {
    EXPECT_FALSE(result.converged);
    double most = 0.0;
    for (const subject_health& h : result.health) most = std::max(most, h.failed);
    EXPECT_GT(most, most_failures) << result.reason;
    EXPECT_THAT(result.warnings, testing::Contains(testing::Field(&finding::code, "W-RUN-FAILED")));
  }
}

// The valley of a full omega and a combined error bends: the first end is 0.05 above the maximum,
// though the steps' own points see little ahead.
TEST(NewtonMethod, GoesOnWhereTheReportSeesMoreAhead) {
  const population_model model = test::theophylline([](model_specification& file) {
    file.parameters[0].start = 7.83;
    file.parameters[1].start = 0.556;
    file.parameters[2].start = 87.2;
    file.omega = {{{"ka", "CL", "V"},
                   {0.0723, 0.00943, 0.0174, 0.00943, 0.123, 0.0756, 0.0174, 0.0756, 0.418},
                   false}};
    file.endpoints.front().residual = {error_kind::combined, 1.15, 0.265, false, false, 0.0, false};
    file.estimation.seed = 2;
    file.estimation.npde_samples = 0;
  });
  const fit_result result = test::fit(model);
  EXPECT_TRUE(result.converged) << result.reason;
  EXPECT_NEAR(result.likelihood.minus2ll, 336.7670, 0.02);
}

TEST(NewtonMethod, GoesOnByAStepOfManySamplesOrOnMorePoints) {
  const population_model model = test::theophylline();
  const job alone(nullptr, nullptr);
  const captured_unit swallowed;
  engine_host host(model, alone);
  const newton_method method(host);
  draw_measure found;
  found.definite = true;
  found.gain = 0.05;
  found.samples = 1 << 17;
  EXPECT_TRUE(method.trusts_step(found));
  found.samples = 1 << 16;
  EXPECT_FALSE(method.trusts_step(found));
  found.samples = 1 << 17;
  found.gain = 0.2;
  EXPECT_FALSE(method.trusts_step(found));
  found.gain = 0.05;
  found.definite = false;
  EXPECT_FALSE(method.trusts_step(found));

  run_state state;
  method.begin(state);
  state.records.push_back({1, 0.0, state.theta, state.omega});
  state.newton.samples = 256;
  state.newton.arrived = state.ended = true;
  const Eigen::VectorXd psi = method.scale().of(state.theta, state.omega);
  const Eigen::VectorXd step = Eigen::VectorXd::LinSpaced(psi.size(), -0.03, 0.04);
  EXPECT_FALSE(method.go_on(state, 0.009, step));
  ASSERT_TRUE(method.go_on(state, 0.02, step));
  EXPECT_TRUE(state.ended && state.newton.arrived);
  EXPECT_LT((method.scale().of(host.theta(), host.omega()) - psi - step).norm(), 1e-12);
  EXPECT_EQ(state.records.back().theta, host.theta());
  ASSERT_TRUE(method.go_on(state, 0.02, {}));
  EXPECT_FALSE(state.ended || state.newton.arrived);
  EXPECT_EQ(state.newton.samples, 512);
  state.newton.arrived = true;
  EXPECT_FALSE(method.go_on(state, 0.02, step));
}

// A parameter without random effect, and data that say so much of every subject that a step along
// it leaves samples behind which stand still.
TEST(NewtonMethod, CarriesSamplesAlongWithAParameterWithoutRandomEffect) {
  const population_model precise = test::theophylline([](model_specification& file) {
    file.parameters[0].law = distribution::none;
    file.parameters[0].start = 1.5;
    file.omega = {{{"CL"}, {0.08}, false}, {{"V"}, {0.03}, false}};
    file.endpoints.front().residual = {error_kind::additive, 0.02};
  });
  const population_model model = test::simulated(precise, 1, 5);
  const job alone(nullptr, nullptr);
  const captured_unit swallowed;
  engine_host host(model, alone);
  const newton_method method(host);
  Eigen::VectorXd away = host.theta();
  away(0) *= 1.4;
  host.set_theta(away);
  run_state state;
  method.begin(state);
  ASSERT_TRUE(method.settle(state));
  state.records.clear();
  state.newton.started = true;
  while (!state.ended) ASSERT_TRUE(method.step(state));
  EXPECT_TRUE(state.newton.arrived) << state.newton.trouble;
  EXPECT_NEAR(host.theta()(0), 1.5, 0.02);
  EXPECT_LE(state.newton.draws, 12);
}

// So many samples that small steps are not measured.
TEST(NewtonMethod, ConvergesOnManySubjects) {
  const population_model few =
      test::theophylline([](model_specification& file) { file.estimation.npde_samples = 0; });
  const population_model many = test::simulated(few, 400, 7);
  const fit_result result = test::fit(many);
  EXPECT_TRUE(result.converged) << result.reason;
  const std::vector<fixed_effect>& thetas = few.thetas();
  for (std::size_t k = 0; k < thetas.size(); ++k)
    EXPECT_NEAR(result.theta(static_cast<Eigen::Index>(k)), thetas[k].start,
                0.05 * std::fabs(thetas[k].start))
        << thetas[k].name;
}

// Of theophylline's subjects none shows a tail.
TEST(NewtonMethod, DrawsManySubjectsFromThePopulationToo) {
  const population_model few = test::theophylline();
  for (const int times : {1, 400}) {
    const population_model model = test::simulated(few, times, 7);
    const job alone(nullptr, nullptr);
    engine_host host(model, alone);
    const auto subjects = static_cast<std::size_t>(model.subjects());
    whole_draw drawn;
    drawn.theta = host.theta();
    drawn.population = 0.5 * Eigen::MatrixXd::Identity(3, 3);
    const draw_component own = {1.0, Eigen::Vector3d::Constant(9.0), drawn.population};
    drawn.proposals.assign(subjects, mixture_of({own}));
    const draw_mixture from = components_of(model, drawn, 3);
    EXPECT_EQ(from->front().share, 1.0);
    EXPECT_EQ(from->front().centre, own.centre);
    ASSERT_EQ(from->size(), times == 1 ? 1U : 2U);
    if (times == 1) continue;
    Eigen::VectorXd mu(3);
    model.means(3, drawn.theta.data(), mu.data());
    EXPECT_EQ(from->back().share, 0.0625);
    EXPECT_EQ(from->back().centre, mu);
    EXPECT_EQ(from->back().factor, drawn.population);
  }
}

TEST(NewtonMethod, KeepsTheBestOfSeveralStarts) {
  const population_model model = test::theophylline([](model_specification& file) {
    file.estimation.npde_samples = 0;
    file.estimation.starts = 8;
  });
  const fit_result result = test::fit(model);
  ASSERT_EQ(result.starts.size(), 8U);
  EXPECT_NEAR(result.starts.front().minus2ll, 360.7007, 0.02);
  int kept = 0;
  for (const start_record& s : result.starts) {
    kept += s.kept ? 1 : 0;
    EXPECT_GT(s.minus2ll, result.likelihood.minus2ll - 0.05) << s.number;
    if (!s.kept) continue;
    EXPECT_EQ(s.minus2ll, result.likelihood.minus2ll);
    EXPECT_EQ(s.theta, result.theta);
    EXPECT_EQ(s.converged, result.converged);
  }
  EXPECT_EQ(kept, 1);
}

}  // namespace
}  // namespace varda
