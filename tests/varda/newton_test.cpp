// SPDX-License-Identifier: Apache-2.0
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <Eigen/Cholesky>
#include <cmath>
#include <sstream>

#include "tests/support/fake_host.h"
#include "tests/varda/theophylline.h"
#include "varda/host/engine_host.h"
#include "varda/inference/pareto_shape.h"
#include "varda/method/newton/newton.h"
#include "varda/support/archive.h"

namespace varda {
namespace {

using test::captured_unit;

// A full omega, a covariate, a parameter without random effect, a combined error and a censored
// observation: every kind of coordinate.
population_model every_coordinate() {
  const population_model plain = test::theophylline([](model_specification& file) {
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
    file.endpoints.front().residual = {error_kind::combined, 0.5, 0.1, false, false};
  });
  dataset data = plain.data();
  observation& first = data.subjects[2].observations[9];
  first.censored = censoring::left;
  return {plain.specification(), data};
}

// Fisher's and Louis' identities against differences of the sampled log-likelihood itself.
TEST(SubjectSampler, DerivativesAreThoseOfTheSampledLikelihood) {
  const population_model model = every_coordinate();
  const job alone(nullptr, nullptr);
  const captured_unit swallowed;
  engine_host host(model, alone);
  const coordinates scale(model);
  ASSERT_EQ(scale.size(), 9);
  subject_draw drawn;
  const draw_component about{1.0, Eigen::Vector2d(1.1, 3.4),
                             Eigen::Vector2d(0.25, 0.2).asDiagonal()};
  ASSERT_TRUE(draw_subject(host, 2, {about}, {}, 64, 4, drawn));
  const Eigen::VectorXd psi = scale.of(host.theta(), host.omega());
  const Eigen::VectorXd drawn_at = host.theta();
  subject_sampler sampler(host.joint(), scale);
  std::int64_t evaluations = 0;
  const auto at = [&](const Eigen::VectorXd& where, detail wanted) {
    return sampler.measure(2, drawn, drawn_at,
                           measure_point(scale, where, host.theta(), host.omega()), wanted,
                           evaluations);
  };
  const subject_measure found = at(psi, detail::derivatives);
  const double step = 1e-4;
  for (Eigen::Index k = 0; k < psi.size(); ++k) {
    const Eigen::VectorXd by = step * Eigen::VectorXd::Unit(psi.size(), k);
    const subject_measure up = at(psi + by, detail::derivatives);
    const subject_measure down = at(psi - by, detail::derivatives);
    const std::string& name = scale.entries()[static_cast<std::size_t>(k)].name;
    EXPECT_NEAR(found.gradient(k), (up.log_likelihood - down.log_likelihood) / (2.0 * step),
                1e-4 * (1.0 + std::fabs(found.gradient(k))))
        << name;
    const Eigen::VectorXd column = (down.gradient - up.gradient) / (2.0 * step);
    for (Eigen::Index l = 0; l < psi.size(); ++l)
      EXPECT_NEAR(found.information(l, k), column(l), 2e-3 * (1.0 + std::fabs(column(l))))
          << name << " " << scale.entries()[static_cast<std::size_t>(l)].name;
  }
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
    EXPECT_TRUE(draw_subject(host, 0, from, {}, 16384, 4, drawn));
    std::int64_t evaluations = 0;
    return sampler
        .measure(0, drawn, host.theta(), measure_point(scale, psi, host.theta(), host.omega()),
                 detail::value, evaluations)
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
TEST(NewtonMethod, ReachesTheMaximumFromPoorStarts) {
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
    EXPECT_TRUE(result.converged) << result.reason;
    EXPECT_NEAR(result.likelihood.minus2ll, 360.7007, 0.02);
  }
}

}  // namespace
}  // namespace varda
