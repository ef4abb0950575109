// SPDX-License-Identifier: Apache-2.0
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <Eigen/Cholesky>
#include <Eigen/Eigenvalues>
#include <algorithm>
#include <array>
#include <cmath>
#include <vector>

#include "statsubs/sequences/sobol.h"
#include "tests/support/fake_host.h"
#include "tests/varda/theophylline.h"
#include "varda/host/engine_host.h"
#include "varda/host/points.h"
#include "varda/inference/minimise.h"
#include "varda/inference/modes.h"
#include "varda/inference/quadrature.h"
#include "varda/method/em/anderson.h"
#include "varda/method/em/convergence.h"
#include "varda/method/em/em.h"
#include "varda/method/em/iteration_scale.h"
#include "varda/method/em/resampler.h"
#include "varda/method/newton/normal_posterior.h"
#include "varda/support/archive.h"

namespace varda {
namespace {

TEST(Minimise, FindsAMinimumInsideAndAtTheEdgeOfItsBox) {
  const objective_function rosenbrock = [](const Eigen::VectorXd& x) {
    return 100.0 * std::pow(x(1) - x(0) * x(0), 2) + std::pow(1.0 - x(0), 2);
  };
  const Eigen::Vector2d step(0.1, 0.1);
  const minimum free = minimise(rosenbrock, Eigen::Vector2d(-1.2, 1.0), step, 1e-9);
  EXPECT_NEAR(free.x(0), 1.0, 1e-5);
  EXPECT_NEAR(free.x(1), 1.0, 1e-5);
  const minimum boxed = minimise(rosenbrock, Eigen::Vector2d(-1.2, 1.0), step,
                                 Eigen::Vector2d(-2.0, -2.0), Eigen::Vector2d(0.5, 2.0), 1e-9);
  EXPECT_NEAR(boxed.x(0), 0.5, 1e-6);
  EXPECT_NEAR(boxed.x(1), 0.25, 1e-5);
  const objective_function one = [](const Eigen::VectorXd& x) { return std::cosh(x(0) - 3.0); };
  EXPECT_NEAR(minimise(one, Eigen::VectorXd::Zero(1), Eigen::VectorXd::Ones(1), 1e-7).x(0), 3.0,
              1e-4);
}

TEST(Hessian, OfASmoothFunction) {
  const objective_function f = [](const Eigen::VectorXd& x) {
    return std::exp(x(0)) * std::sin(x(1));
  };
  const Eigen::Vector2d at(0.3, 0.7);
  const Eigen::MatrixXd h = hessian(f, at, Eigen::Vector2d(1e-3, 1e-3));
  EXPECT_NEAR(h(0, 0), std::exp(0.3) * std::sin(0.7), 1e-6);
  EXPECT_NEAR(h(0, 1), std::exp(0.3) * std::cos(0.7), 1e-6);
  EXPECT_NEAR(h(1, 1), -std::exp(0.3) * std::sin(0.7), 1e-6);
}

// Written out by hand for one subject: additive error, log-normal parameters, a dose at time 0.
TEST(EngineHost, ObjectiveIsTheNegativeLogJointDensity) {
  const population_model model = test::theophylline();
  const job alone(nullptr, nullptr);
  engine_host host(model, alone);
  const Eigen::Vector3d eta(0.2, -0.1, 0.05);
  const double ka = 1.2 * std::exp(eta(0));
  const double cl = 3.0 * std::exp(eta(1));
  const double v = 35.0 * std::exp(eta(2));
  const subject& who = model.data().subjects[4];
  double expected = 0.0;
  for (const observation& o : who.observations) {
    const double k = cl / v;
    const double f = who.doses[0].amount * ka / (v * (ka - k)) *
                     (std::exp(-k * o.time) - std::exp(-ka * o.time));
    expected += 0.5 * std::log(2.0 * M_PI) + 0.5 * (o.value - f) * (o.value - f);  // sd is 1
  }
  for (int e = 0; e < 3; ++e)
    expected += 0.5 * std::log(2.0 * M_PI * 0.3) + 0.5 * eta(e) * eta(e) / 0.3;
  EXPECT_NEAR(host.objective(4, eta.data()), expected, 1e-11);
}

// Where the points of a subject stand is known without those of any other, whatever was drawn
// before; passes, seeds and subjects differ.
TEST(PointSource, PointsHaveAnAddress) {
  const point_source points(3, 1, 1);
  const auto third_point = [&](const point_source& from, const point_pass& pass, int subject,
                               int samples) {
    std::array<double, 3> x{};
    from.place(pass, subject, samples);
    for (int k = 0; k < 3; ++k) statsubs::gosobl(x.data());
    return x;
  };
  const point_pass iteration{point_pass::purpose::iteration, 0};
  const point_pass replicate{point_pass::purpose::report, 1};
  const auto first = third_point(points, iteration, 4, 256);
  std::set<std::array<double, 3>> others = {
      third_point(points, iteration, 5, 256), third_point(points, replicate, 4, 256),
      third_point(points, {point_pass::purpose::report, 2}, 4, 256), first};
  EXPECT_EQ(others.size(), 4U);
  EXPECT_EQ(third_point(points, iteration, 4, 256), first);
  // The replicates of different seeds do not overlap.
  std::set<std::uint64_t> addresses;
  for (int seed = 1; seed <= 20; ++seed)
    for (int r = 1; r <= 20; ++r)
      addresses.insert(address_of(seed, {point_pass::purpose::report, r}, 4));
  EXPECT_EQ(addresses.size(), 400U);
}

// What threads take of the points is what the library draws from there.
TEST(PointSource, FillsInWhatTheGeneratorGives) {
  const point_source points(3, 7, 1);
  const point_pass pass{point_pass::purpose::draw, 2};
  for (const int samples : {256, 100}) {
    std::vector<double> filled(3 * static_cast<std::size_t>(samples));
    points.fill(pass, 4, samples, filled.data());
    points.place(pass, 4, samples);
    std::array<double, 3> x{};
    for (std::size_t j = 0; j < filled.size(); j += 3) {
      statsubs::gosobl(x.data());
      for (std::size_t i = 0; i < 3; ++i)
        ASSERT_EQ(filled[j + i], std::clamp(x[i], 1e-6, 0.999999)) << samples << " " << j;
    }
  }
}

// A shifted net has one point in each of 2^8 boxes of every elementary shape.
TEST(PointSource, APowerOfTwoOfPointsIsANet) {
  const point_source points(2, 3, 1);
  points.place({point_pass::purpose::report, 3}, 7, 256);
  std::vector<std::array<double, 2>> x(256);
  for (auto& point : x) statsubs::gosobl(point.data());
  for (int bits = 0; bits <= 8; ++bits) {
    std::set<int> boxes;
    for (const auto& [u, v] : x)
      boxes.insert(static_cast<int>(u * (1 << bits)) * (1 << (8 - bits)) +
                   static_cast<int>(v * (1 << (8 - bits))));
    EXPECT_EQ(boxes.size(), 256U) << bits;
  }
}

// A run that is written in the middle, read back by another host and carried on ends as the one
// that was not interrupted, to the last bit.
TEST(RunState, IsTakenUpWhereItWasLeft) {
  const population_model model = test::theophylline([](model_specification& file) {
    file.endpoints.front().residual = {error_kind::combined, 0.5, 0.2, false, false};
  });
  const job alone(nullptr, nullptr);
  const test::captured_unit swallowed;
  std::stringstream written;
  const auto finish = [](const em_method& method, run_state& state) {
    while (!state.ended) EXPECT_TRUE(method.step(state));
    return state.records.back();
  };
  iteration_record whole;
  {
    engine_host host(model, alone);
    const em_method method(host);
    run_state state;
    state.adaptive = proposals(model, host.omega());
    ASSERT_TRUE(propose_from_modes(host, state.adaptive));
    method.begin(state);
    for (int k = 0; k < 9; ++k) ASSERT_TRUE(method.step(state));
    archive_writer to(written);
    to(state);
    whole = finish(method, state);
  }
  engine_host host(model, alone);
  run_state state;
  archive_reader from(written);
  from(state);
  host.set_theta(state.theta);
  host.set_omega(state.omega);
  const iteration_record resumed = finish(em_method(host), state);
  EXPECT_GT(resumed.iteration, 9);
  EXPECT_EQ(resumed.iteration, whole.iteration);
  EXPECT_EQ(resumed.minus2ll, whole.minus2ll);
  EXPECT_EQ(resumed.theta, whole.theta);
  EXPECT_EQ(resumed.omega, whole.omega);

  std::stringstream cut(written.str().substr(0, 100));
  archive_reader broken(cut);
  EXPECT_THROW(broken(state), std::runtime_error);
}

// 2^31 points are one too many: 2 nodes for 3 random effects per subject and 28 per occasion.
TEST(Quadrature, RefusesAGridThatCannotBeCounted) {
  EXPECT_EQ(most_agq_nodes(6), 35);
  const population_model whole = test::theophylline([](model_specification& file) {
    file.occasion_omega = {{{"V"}, {0.05}, false}};
    file.estimation.likelihood = likelihood_kind::agq;
    file.estimation.agq_nodes = 2;
  });
  dataset data = whole.data();
  data.subjects[0].occasions = 27;
  EXPECT_NO_THROW(check_grid({whole.specification(), data}));
  data.subjects[0].occasions = 28;
  EXPECT_THROW(check_grid({whole.specification(), data}), bad_input);
  EXPECT_THROW(check_fit({whole.specification(), data}), bad_input);
}

TEST(Resampler, DrawsInProportionAndFollowsWhatItKept) {
  resampler kept(1, 4, true);
  const Eigen::MatrixXd etas = Eigen::RowVectorXd::LinSpaced(4, 1.0, 4.0);
  const Eigen::VectorXd mu = Eigen::VectorXd::Constant(1, 10.0);
  const resampled_points first = kept.draw(0, mu, etas, Eigen::Vector4d(0.5, 0.0, 0.25, 0.25));
  EXPECT_EQ(first.phi, Eigen::RowVector4d(11.0, 11.0, 13.0, 14.0));
  EXPECT_EQ(first.weights, Eigen::Vector4d::Constant(0.25));
  const resampled_points second = kept.draw(0, mu, etas, Eigen::Vector4d(0.4, 0.0, 0.3, 0.3));
  EXPECT_EQ(second.phi, first.phi);
  EXPECT_NEAR(second.weights(3) / second.weights(0), 1.5, 1e-12);
  const resampled_points third = kept.draw(0, mu, etas, Eigen::Vector4d(0.0, 1.0, 0.0, 0.0));
  EXPECT_EQ(third.phi, Eigen::RowVector4d::Constant(12.0));
}

// Feeds the monitor a clearance that approaches 2.75 and everything else at rest.
template <class Step>
convergence_monitor watch(const iteration_scale& scale, const population_model& model, bool noisy,
                          int iterations, Step step) {
  convergence_monitor monitor(scale.names(), 5e-4, noisy);
  const auto at = [&](int t) {
    Eigen::VectorXd theta = model.start_theta();
    theta(1) = 2.75 * std::exp(step(t));
    return scale.values(theta, model.start_omega());
  };
  for (int t = 0; t < iterations; ++t)
    monitor.add(at(t), at(t + 1), 118.0 + step(t) * step(t), 0.97);
  return monitor;
}

TEST(ConvergenceMonitor, LooksAheadOfASlowContraction) {
  const population_model model = test::theophylline();
  const iteration_scale scale(model);
  const auto contraction = [](int t) { return 0.1 * std::pow(0.97, t); };
  // The step is below the tolerance of 5e-4 from iteration 60 on, what lies ahead only from 175 on.
  const convergence_monitor early = watch(scale, model, false, 150, contraction);
  EXPECT_FALSE(early.converged());
  EXPECT_THAT(early.conclusion().reason, testing::HasSubstr("CL"));
  EXPECT_TRUE(watch(scale, model, false, 185, contraction).converged());
}

TEST(ConvergenceMonitor, TellsNoiseFromATrend) {
  const population_model model = test::theophylline();
  const iteration_scale scale(model);
  const auto noise = [](int t) { return 0.01 * std::sin(12.9898 * t * t + 78.233); };
  EXPECT_FALSE(watch(scale, model, false, 60, noise).converged());
  EXPECT_TRUE(watch(scale, model, true, 60, noise).converged());
  const auto drift = [&](int t) { return noise(t) - 0.002 * t; };
  EXPECT_FALSE(watch(scale, model, true, 60, drift).converged());
}

TEST(IterationScale, PutIsTheInverseOfValues) {
  const population_model model = test::theophylline([](model_specification& file) {
    file.parameters[1].law = distribution::normal;
    file.parameters[2].upper = 36.0;
    file.omega = {{{"ka", "CL"}, {0.3, 0.02, 0.02, 0.1}, false}, {{"V"}, {0.02}, true}};
  });
  const iteration_scale scale(model);
  Eigen::VectorXd theta = model.start_theta();
  Eigen::MatrixXd omega = model.start_omega();
  Eigen::VectorXd values = scale.values(theta, omega);
  EXPECT_THAT(scale.names(), testing::ElementsAre("ka", "CL", "V", "additive", "omega(ka)",
                                                  "corr(ka,CL)", "omega(CL)"));
  EXPECT_NEAR(values(5), 0.02 / std::sqrt(0.03), 1e-14);
  values += Eigen::VectorXd::Constant(values.size(), 0.1);
  scale.put(values, theta, omega);
  EXPECT_EQ(theta(2), 36.0);  // held by its bound
  EXPECT_EQ(omega(2, 2), 0.02);
  values(2) = std::log(36.0);
  EXPECT_LT((scale.values(theta, omega) - values).cwiseAbs().maxCoeff(), 1e-14);
}

// On a linear map with d different rates the secants are exact: d + 1 steps reach the fixed point,
// and the rate is the largest one.
TEST(AndersonAcceleration, SolvesALinearMapAndFindsItsRate) {
  Eigen::Matrix3d derivative;
  derivative << 0.9, 0.1, 0.0, 0.0, 0.5, 0.2, 0.0, 0.0, 0.2;  // eigenvalues 0.9, 0.5, 0.2
  const Eigen::Vector3d limit(1.0, 2.0, 4.0);
  anderson_acceleration acceleration(5);
  Eigen::VectorXd x = Eigen::Vector3d::Zero();
  for (int k = 0; k < 4; ++k) {
    EXPECT_GT((x - limit).norm(), 1e-3);
    x = acceleration.advance(x, limit + derivative * (x - limit));
  }
  EXPECT_LT((x - limit).norm(), 1e-10);
  EXPECT_NEAR(acceleration.rate(), 0.9, 1e-8);

  // After a change of the map the secants still serve, but no rate is known.
  acceleration.map_changed();
  const Eigen::Vector3d moved_limit = limit.array() + 0.01;
  x = acceleration.advance(x, moved_limit + derivative * (x - moved_limit));
  EXPECT_LT((x - moved_limit).norm(), 1e-10);
  EXPECT_EQ(acceleration.rate(), 1.0);
}

// An iteration evaluates every subject once at its centre and once at each of its points.
TEST(Iterations, TakeThePointsThatAreGiven) {
  const population_model model = test::theophylline([](model_specification& file) {
    estimation_settings& s = file.estimation;
    s.method = method_kind::em;
    s.samples = 256;
    s.fresh_points = s.run_all = true;
  });
  const job alone(nullptr, nullptr);
  const test::captured_unit swallowed;
  engine_host host(model, alone);
  run_state state;
  state.adaptive = proposals(model, host.omega());
  const em_method method(host);
  method.begin(state);
  ASSERT_TRUE(method.step(state));
  const std::int64_t before = host.evaluations();
  ASSERT_TRUE(method.step(state));
  EXPECT_EQ(host.evaluations() - before, 12 * (256 + 1));
}

// The mode against the derivative-free search, and its Hessian against differences of another step.
TEST(FindMode, IsTheMinimumOfTheObjective) {
  const population_model model = test::theophylline();
  const job alone(nullptr, nullptr);
  engine_host host(model, alone);
  for (int i = 0; i < model.subjects(); ++i) {
    const posterior_mode found = find_mode(host, i);
    const objective_function f = [&](const Eigen::VectorXd& eta) {
      return host.objective(i, eta.data());
    };
    const minimum lowest =
        minimise(f, Eigen::Vector3d::Zero(), Eigen::Vector3d::Constant(0.3), 1e-8);
    EXPECT_LT((found.eta - lowest.x).cwiseAbs().maxCoeff(), 1e-5);
    EXPECT_NEAR(found.objective, lowest.value, 1e-9);
    const Eigen::MatrixXd h = hessian(f, lowest.x, Eigen::Vector3d::Constant(1e-3));
    EXPECT_LT((found.factor * found.factor.transpose() - h).cwiseAbs().maxCoeff(),
              2e-3 * h.cwiseAbs().maxCoeff());
  }
}

// Where a duration D passes the time of a value that is too large, the log density has a corner,
// and its mode lies there. The normal distribution about the mode has to be about as wide as the
// density, by quadrature.
TEST(ModeFinder, ACornerIsNoNarrowPeak) {
  const population_model plain = test::theophylline([](model_specification& file) {
    file.structure.name = "one-compartment zero-order";
    parameter duration = file.parameters[1];
    duration.name = "D";
    duration.start = 2.2;
    file.parameters = {file.parameters[1], file.parameters[2], duration};
    file.omega = {{{"CL"}, {0.06}, false}, {{"V"}, {0.06}, false}, {{"D"}, {0.06}, false}};
    file.endpoints.front().residual = {error_kind::additive, 0.6};
  });
  dataset data = plain.data();
  subject& who = data.subjects.front();
  const population_model model(plain.specification(), data);
  const Eigen::VectorXd mu = model.start_theta().head(3).array().log();
  const Eigen::VectorXd f = test::predict(model, 0, model.start_theta(), mu);
  double corner = 0.0;
  for (std::size_t k = 0; k < who.observations.size(); ++k) {
    observation& o = who.observations[k];
    o.value = f(static_cast<Eigen::Index>(k));
    if (o.time < 1.5 || o.time > 2.5) continue;
    o.value += 2.0;
    corner = o.time;
  }
  ASSERT_GT(corner, 0.0);
  const population_model cornered(plain.specification(), data);
  const density joint(cornered);
  mode_finder finder(joint);
  const parameter_values at(cornered.start_theta(), cornered.start_omega());
  const normal_posterior mode = finder.search(0, mu, at);
  ASSERT_TRUE(mode.usable);
  EXPECT_NEAR(std::exp(mode.phi(2)), corner, 1e-3);

  constexpr int side = 41;
  const Eigen::Vector3d reach(0.6, 0.4, 0.6);
  Eigen::MatrixXd grid(3, side * side * side);
  for (int j = 0; j < grid.cols(); ++j) {
    const Eigen::Vector3d place(j % side, j / side % side, j / side / side);
    grid.col(j) = mode.phi.array() + reach.array() * (2.0 * place.array() / (side - 1) - 1.0);
  }
  Eigen::VectorXd mass = (finder.log_density(0, grid, at).array() - mode.log_density).exp();
  mass /= mass.sum();
  const Eigen::Vector3d mean = grid * mass;
  const Eigen::MatrixXd off = grid.colwise() - mean;
  const Eigen::Matrix3d covariance = off * mass.asDiagonal() * off.transpose();
  const Eigen::Matrix3d factor = mode.covariance.llt().matrixL();
  const Eigen::Matrix3d half = factor.triangularView<Eigen::Lower>().solve(covariance);
  const Eigen::Matrix3d ratio = factor.triangularView<Eigen::Lower>().solve(half.transpose());
  const Eigen::Vector3d widths =
      Eigen::SelfAdjointEigenSolver<Eigen::Matrix3d>(ratio).eigenvalues();
  EXPECT_GT(widths.minCoeff(), 0.4) << widths.transpose();
  EXPECT_LT(widths.maxCoeff(), 2.5) << widths.transpose();
}

}  // namespace
}  // namespace varda
