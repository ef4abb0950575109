// SPDX-License-Identifier: Apache-2.0
//
// What enters a subject's likelihood beside the structural model. The constants are mpmath's, 20
// digits.
#include "varda/model/population.h"

#include <gmock/gmock.h>

#include <array>
#include <boost/math/distributions/students_t.hpp>
#include <cmath>

#include "tests/varda/theophylline.h"

namespace varda {
namespace {

using testing::DoubleNear;
using testing::ElementsAre;
using testing::Pointwise;

constexpr double infinite = std::numeric_limits<double>::infinity();

// With the deviation 1 about the prediction 0 it is the logarithm of a normal probability that a
// censored observation counts with.
double log_probability(const observation& at, double degrees_of_freedom = 0.0) {
  const endpoints model(
      {{"", {error_kind::additive, 1.0, 0.0, false, false, 0.0, false, degrees_of_freedom}}}, 0,
      {});
  subject who;
  append(who, at);
  const double f = 0.0, theta = 1.0;
  double objective = 0.0, squares = 0.0;
  model.objectives(who, &f, 1, 1, &theta, &objective, &squares);
  return -objective;
}

TEST(ResidualModel, NormalProbabilitiesKeepTheirDigitsInBothTails) {
  const std::array<std::pair<double, double>, 8> one_sided = {{{-200.0, -20006.217280898190402},
                                                               {-40.0, -804.60844201375378817},
                                                               {-30.5, -469.46273732291211439},
                                                               {-29.5, -439.42947460915022775},
                                                               {-8.0, -35.013437159914549896},
                                                               {-1.0, -1.8410216450092635058},
                                                               {3.0, -0.0013508099647481937988},
                                                               {9.0, -1.1285884059538406478e-19}}};
  const std::array<std::array<double, 3>, 5> intervals = {{{-2.0, 1.0, -0.20016629432446257995},
                                                           {3.0, 4.0, -6.6314677865382250655},
                                                           {8.0, 8.5, -35.02879250857974781},
                                                           {-40.0, -39.0, -765.08315656437754441},
                                                           {30.0, 31.0, -454.32124395634325204}}};
  for (const auto& [z, exact] : one_sided) {
    EXPECT_NEAR(log_probability({.value = z, .censored = censoring::left}) / exact, 1.0, 4e-14)
        << z;
    EXPECT_NEAR(log_probability({.value = -z, .censored = censoring::right}) / exact, 1.0, 4e-14)
        << z;
  }
  for (const auto& [lower, upper, exact] : intervals) {
    const observation between = {.value = upper, .limit = lower, .censored = censoring::interval};
    EXPECT_NEAR(log_probability(between) / exact, 1.0, 1e-13) << lower;
  }
  EXPECT_EQ(log_probability({.value = -1.0, .limit = -infinite, .censored = censoring::interval}),
            log_probability({.value = -1.0, .censored = censoring::left}));
}

// Against Boost, in the tails and about the middle, where the formula changes.
TEST(ResidualModel, ProbabilitiesOfStudentsTKeepTheirDigitsInBothTails) {
  for (const double nu : {2.01, 3.0, 4.0, 30.5, 1000.0}) {
    const boost::math::students_t_distribution<long double> student(nu);
    for (const double z : {1e-200, 1e-3, 0.4, 1.2, 1.7, 1.8, 4.0, 30.0, 1e4, 1e12}) {
      const long double tail = boost::math::cdf(student, -static_cast<long double>(z));
      if (tail < 1e-3000L) continue;  // out of Boost's reach
      const auto down = static_cast<double>(std::log(tail));
      const auto up = static_cast<double>(std::log1p(-tail));
      const auto found = [&](double y, censoring c) {
        return log_probability({.value = y, .censored = c}, nu);
      };
      EXPECT_NEAR(found(-z, censoring::left) / down, 1.0, 1e-13) << nu << " " << z;
      EXPECT_NEAR(found(z, censoring::right) / down, 1.0, 1e-13) << nu << " " << z;
      EXPECT_NEAR(found(z, censoring::left), up, -2e-13 * up) << nu << " " << z;
      const long double next = boost::math::cdf(student, -static_cast<long double>(z + 0.5 * z));
      const observation between = {.value = 1.5 * z, .limit = z, .censored = censoring::interval};
      if (z < 0.1) continue;
      EXPECT_NEAR(log_probability(between, nu) / static_cast<double>(std::log(tail - next)), 1.0,
                  1e-12)
          << nu << " " << z;
    }
  }
}

// Where the transformed values end: what is known of a censored value covers what lies beyond.
TEST(ResidualModel, BoxCoxProbabilitiesReachTheEndOfTheRange) {
  for (const double lambda : {-0.5, 0.0, 0.5}) {
    const endpoints model(
        {{"", {error_kind::box_cox, 0.8, 0.0, false, false, 0.0, false, 0.0, lambda}}}, 0, {});
    const double theta = 0.8;
    const auto probability = [&](const observation& at) {
      subject who;
      append(who, at);
      const double f = 0.3;
      double objective = 0.0, squares = 0.0;
      model.objectives(who, &f, 1, 1, &theta, &objective, &squares);
      return std::exp(-objective);
    };
    const double below = probability({.value = 0.2, .censored = censoring::left});
    const double above = probability({.value = 0.2, .censored = censoring::right});
    EXPECT_NEAR(below + above, 1.0, 1e-14);
    for (const double limit : {0.0, -1.0})
      EXPECT_EQ(probability({.value = 0.2, .limit = limit, .censored = censoring::interval}),
                below);
    // The density of what is in between, by Simpson's rule, and what is at the end.
    double inside = 0.0;
    constexpr int cells = 20000;
    const double lowest = 1e-9;
    const double step = std::log(0.2 / lowest) / cells;
    for (int k = 0; k <= cells; ++k) {
      const double y = lowest * std::exp(step * k);
      const double weight = k == 0 || k == cells ? 1.0 : k % 2 == 0 ? 2.0 : 4.0;
      inside += weight * step / 3.0 * y * probability({.value = y});
    }
    // h(0) is -1 / lambda, h(0.3) is 2 (0.3^0.5 - 1) for lambda = 0.5.
    const double at_zero =
        lambda > 0.0 ? 0.5 * std::erfc(2.0 * std::sqrt(0.3) / 0.8 / std::sqrt(2.0)) : 0.0;
    EXPECT_NEAR(inside + at_zero, below, 1e-4) << lambda;
    const observation any{.value = 1.0};
    if (lambda == 0.0) continue;
    EXPECT_EQ(model.simulated(any, 0.3, lambda > 0.0 ? -30.0 : 30.0, &theta),
              lambda > 0.0 ? 0.0 : infinite);
    const double drawn = model.simulated(any, 0.3, 0.4, &theta);
    EXPECT_NEAR(model.scaled_residual({.value = drawn}, 0.3, &theta), 0.4, 1e-14);
  }
}

// Two endpoints, observations of every kind of censoring; prediction 2 throughout.
TEST(Endpoints, EveryKindOfObservationAndError) {
  const std::vector<endpoint> described = {
      {"combined", {error_kind::combined, 0.5, 0.2, false, false}},
      {"other", {error_kind::log_normal, 0.3, 0.0, false, false}}};
  const endpoints model(described, 1, {});
  const auto objective = [&](const subject& who, const double* f, const double* at,
                             double& squares) {
    double value = 0.0;
    model.objectives(who, f, 1, 1, at, &value, &squares);
    return value;
  };
  const std::array<double, 4> theta = {99.0, 0.2, 0.5, 0.3};
  std::vector<std::string> names;
  for (const fixed_effect& t : model.parameters()) names.push_back(t.name);
  EXPECT_THAT(names, ElementsAre("combined.proportional", "combined.additive", "other.log_normal"));
  EXPECT_FALSE(model.has_one_scale());

  const observation seen{.value = 2.6};
  const observation below{.value = 1.0, .censored = censoring::left};
  const observation above{.value = 3.0, .censored = censoring::right};
  const observation between{.value = 1.5, .limit = 1.0, .censored = censoring::interval};
  const observation from_zero{.value = 1.5, .limit = 0.0, .censored = censoring::interval};
  const std::array<std::vector<double>, 2> exact = {
      {{0.91216386380668339872, 2.8272577058763001315, 2.8272577058763001315,
        1.8434849230035861546},
       {1.0528938809593263762, 4.5630206768636587129, 2.4274728115798017696, 1.8428595956123586595,
        1.7790737225560111331}}};
  for (const int which : {0, 1}) {
    subject whole;
    double sum = 0.0;
    std::vector<double> found;
    for (observation o : {seen, below, above, between, from_zero}) {
      if (which == 0 && o.limit == 0.0 && o.censored == censoring::interval) continue;
      o.endpoint = which;
      whole.observations.push_back(o);
      subject alone;
      alone.observations = {o};
      const double f = 2.0;
      double squares = -1.0;
      found.push_back(objective(alone, &f, theta.data(), squares));
      const double z = o.censored == censoring::none
                           ? (which == 0 ? 0.6 / std::sqrt(0.41) : std::log(1.3) / 0.3)
                           : 0.0;
      EXPECT_NEAR(squares, z * z, 1e-14);
      sum += found.back();
    }
    EXPECT_THAT(found, Pointwise(DoubleNear(1e-14), exact[static_cast<std::size_t>(which)]));
    const std::vector<double> f(whole.observations.size(), 2.0);
    double squares = 0.0;
    EXPECT_NEAR(objective(whole, f.data(), theta.data(), squares), sum, 1e-13);
    EXPECT_EQ(model.first_failure(whole, f.data(), theta.data()), -1);
  }
  // Nothing can lie about a prediction of 0 with log-normal error.
  subject who;
  who.observations = {{.value = 1.0}, {.value = 1.0, .endpoint = 1}};
  const std::array<double, 2> zero = {0.0, 0.0};
  EXPECT_EQ(model.first_failure(who, zero.data(), theta.data()), 1);
}

// Theophylline with two occasions in the first subject, and weight that changes in the second.
population_model changing_subjects(const std::function<void(model_specification&)>& change) {
  const population_model whole = test::theophylline();
  model_specification file = whole.specification();
  dataset data = whole.data();
  data.subjects.resize(3);
  data.covariate_names = file.data.covariates = {"WT", "SEX"};
  data.covariate_varies = {true, false};
  for (std::size_t i = 0; i < 3; ++i) {
    subject& who = data.subjects[i];
    who.segments = {{.covariates = {70.0, static_cast<double>(i)}}};
    if (i == 2) continue;
    who.segments.push_back({.begin = 5.0,
                            .occasion = i == 0 ? 1 : 0,
                            .covariates = {i == 0 ? 70.0 : 77.0, static_cast<double>(i)}});
    who.occasions = i == 0 ? 2 : 1;
  }
  change(file);
  return {file, data};
}

TEST(PopulationModel, DirectEffectsAndOccasionsMakeSetsOfParameters) {
  const population_model model = changing_subjects([](model_specification& file) {
    file.parameters[0].law = distribution::none;
    file.omega.erase(file.omega.begin());
    file.parameters[0].effects = {{.name = "ka_WT",
                                   .covariate = "WT",
                                   .form = effect_form::exponential,
                                   .center = 70.0,
                                   .start = 0.1}};
    file.parameters[1].effects = {{.name = "CL_WT",
                                   .covariate = "WT",
                                   .form = effect_form::linear,
                                   .center = 70.0,
                                   .start = 0.02},
                                  {.name = "CL_SEX",
                                   .covariate = "SEX",
                                   .form = effect_form::categorical,
                                   .reference = 0.0,
                                   .start = 0.3}};
    file.occasion_omega = {{{"V"}, {0.05}, false}};
  });
  // A categorical effect is constant in a subject and stands in the C matrix, one column a level.
  std::vector<std::string> names;
  for (const fixed_effect& t : model.thetas()) names.push_back(t.name);
  EXPECT_THAT(names,
              ElementsAre("ka", "CL", "V", "ka_WT", "CL_WT", "CL_SEX_1", "CL_SEX_2", "additive"));
  EXPECT_EQ(model.thetas()[4].role, theta_role::direct_effect);
  EXPECT_EQ(model.thetas()[5].role, theta_role::covariate_effect);
  EXPECT_EQ(model.columns().size(), 4U);
  EXPECT_EQ(model.random_effects(), 4);
  EXPECT_EQ(model.subject_effects(), 2);
  EXPECT_EQ(model.effects()[3].name, "V@2");
  EXPECT_TRUE(model.has_effect(0, 3));
  EXPECT_FALSE(model.has_effect(1, 3));

  const Eigen::VectorXd theta = model.start_theta();
  const double ka = theta(0);
  const double cl = theta(1);
  const double v = theta(2);
  Eigen::Vector4d mu;
  model.means(1, theta.data(), mu.data());
  EXPECT_NEAR(mu(0), std::log(cl) + 0.3, 1e-14);
  EXPECT_EQ(mu(2), 0.0);
  Eigen::Vector4d phi = mu + Eigen::Vector4d(0.1, 0.2, 0.4, -0.3);
  Eigen::MatrixXd p;
  // The second subject: weight 70, then 77, one occasion.
  ASSERT_EQ(model.parameter_sets(1), 2);
  model.individual_parameters(1, theta.data(), phi, p);
  p.resize(3, 2);
  EXPECT_NEAR(p(0, 0), ka, 1e-14);
  EXPECT_NEAR(p(0, 1), ka * std::exp(0.7), 1e-13);
  EXPECT_NEAR(p(1, 0), cl * std::exp(0.4), 1e-13);
  EXPECT_NEAR(p(1, 1), cl * std::exp(0.4) * 1.14, 1e-13);
  EXPECT_NEAR(p(2, 1), v * std::exp(0.6), 1e-12);
  // The first: two occasions.
  model.means(0, theta.data(), mu.data());
  phi = mu + Eigen::Vector4d(0.1, 0.2, 0.4, -0.3);
  model.individual_parameters(0, theta.data(), phi, p);
  p.resize(3, 2);
  EXPECT_NEAR(p(2, 0), v * std::exp(0.6), 1e-12);
  EXPECT_NEAR(p(2, 1), v * std::exp(-0.1), 1e-12);
  EXPECT_EQ(model.parameter_sets(2), 1);

  // One variance for both occasions.
  ASSERT_EQ(model.omega_elements().size(), 3U);
  EXPECT_EQ(model.omega_elements()[2].name, "omega_occasion(V,V)");
  EXPECT_THAT(model.omega_elements()[2].places, ElementsAre(std::pair(2, 2), std::pair(3, 3)));
}

TEST(PopulationModel, RefusesCovariatesThatCannotBeUsed) {
  const auto refused = [](covariate_effect effect) {
    try {
      changing_subjects([&](model_specification& file) { file.parameters[1].effects = {effect}; });
    } catch (const bad_input& error) {
      return error.what_found();
    }
    return finding{};
  };
  EXPECT_EQ(refused({.name = "a", .covariate = "SEX"}).subject, "1");  // log 0
  EXPECT_THAT(
      refused({.name = "a", .covariate = "SEX", .form = effect_form::categorical, .reference = 7.0})
          .remedy,
      testing::HasSubstr("0, 1, 2"));
}

}  // namespace
}  // namespace varda
