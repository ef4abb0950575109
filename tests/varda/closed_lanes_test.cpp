// SPDX-License-Identifier: Apache-2.0
//
// Closed forms and densities of many individuals at once: bits that depend on nothing but the
// individual.
#include <gtest/gtest.h>

#include <bit>
#include <boost/math/distributions/students_t.hpp>
#include <cmath>
#include <limits>
#include <random>

#include "varda/model/closed/compartment_model.h"
#include "varda/model/closed/compartment_parameters.h"
#include "varda/model/endpoint.h"
#include "varda/model/lanes/kernel.h"

namespace varda {
namespace {

constexpr std::size_t n = 77;

void expect_same_bits(const std::vector<double>& a, const std::vector<double>& b) {
  ASSERT_EQ(a.size(), b.size());
  std::size_t different = 0;
  for (std::size_t i = 0; i < a.size(); ++i)
    different += std::bit_cast<std::uint64_t>(a[i]) == std::bit_cast<std::uint64_t>(b[i]) ? 0 : 1;
  EXPECT_EQ(different, 0U) << "of " << a.size();
}

std::vector<const lane_kernel*> kernels() {
  std::vector<const lane_kernel*> all = {lane_kernel_named("sse2")};
  if (const lane_kernel* wide = lane_kernel_named("avx2")) all.push_back(wide);
  return all;
}

// Doses of every kind that one subject can have, into the first compartment and the central one; a
// reset; parameters that change.
subject eventful(const linear_compartments& model) {
  subject who;
  who.segments.resize(2);
  const auto see = [&](double from) {
    for (const double after : {0.0, 0.4, 1.5, 4.0}) append(who, observation{.time = from + after});
  };
  append(who, dose{.time = 0.0, .amount = 60.0, .steady_state = true, .interval = 6.0});
  see(0.0);
  append(who, dose{.time = 5.0,
                   .amount = 40.0,
                   .compartment = model.dose_compartments(),
                   .input = dose_input::infusion,
                   .rate = 16.0});
  see(5.0);
  append(who, dose{.time = 11.0, .amount = 50.0});
  who.timeline.push_back({event_kind::segment, 1, 11.5});
  see(11.5);
  who.timeline.push_back({event_kind::reset, 0, 17.0});
  append(who, dose{.time = 17.0,
                   .amount = 30.0,
                   .input = dose_input::infusion,
                   .rate = 3.0,
                   .steady_state = true,
                   .interval = 8.0});
  see(17.0);
  append(who, dose{.time = 22.0,
                   .amount = 10.0,
                   .input = model.models_duration(1) ? dose_input::modelled_duration
                                                     : dose_input::bolus});
  append(who, dose{.time = 23.0, .amount = 10.0});
  see(23.0);
  return who;
}

template <class Disposition>
void expect_own_bits(const administration_choice& choice) {
  const compartment_model<Disposition> model(choice);
  SCOPED_TRACE(model.parameter_names().size());
  const subject who = eventful(model);
  const std::size_t parameters = model.parameter_names().size();
  const std::size_t rows = 2 * parameters;
  const std::size_t observations = who.observations.size();
  // Wide enough for all branches of the spectra and for lag times beyond an interval.
  std::mt19937_64 engine(5);
  std::normal_distribution<double> normal;
  std::vector<double> p(rows * n);
  for (double& x : p) x = 2.0 * std::exp(1.2 * normal(engine));
  p[1 * n + 3] = p[0 * n + 3];  // equal rates
  p[2] = -1.0;
  p[(parameters + 1) * n + 9] = std::numeric_limits<double>::quiet_NaN();  // from a segment on

  const auto predicted = [&](const lane_kernel& kernel, std::size_t first, std::size_t count) {
    std::vector<double> f(observations * count, -1.0);
    const auto scratch = model.make_workspace(kernel);
    model.predict(who, {p.data() + first, parameters, 2, count, n}, {f.data(), observations, count},
                  *scratch);
    return f;
  };
  const std::vector<double> all = predicted(best_lane_kernel(), 0, n);
  for (std::size_t j = 0; j < n; ++j)
    for (std::size_t k = 0; k < observations; ++k)
      ASSERT_EQ(std::isfinite(all[k * n + j]), j != 2 && j != 9) << j << " " << k;
  for (const lane_kernel* kernel : kernels()) {
    SCOPED_TRACE(kernel->name);
    expect_same_bits(predicted(*kernel, 0, n), all);
    for (std::size_t j = 0; j < n; ++j) {
      std::vector<double> own;
      for (std::size_t k = 0; k < observations; ++k) own.push_back(all[k * n + j]);
      expect_same_bits(predicted(*kernel, j, 1), own);
    }
  }
}

TEST(ClosedForms, GiveEveryIndividualItsOwnBits) {
  for (const route by : {route::intravenous, route::oral, route::zero_order})
    for (const bool shifted : {false, true}) {
      const administration_choice choice = {.by = by,
                                            .lag_time = shifted,
                                            .bioavailability = shifted,
                                            .modelled_duration = by == route::intravenous};
      SCOPED_TRACE(static_cast<int>(by));
      expect_own_bits<one_compartment_rates>(choice);
      expect_own_bits<two_compartment_rates>(choice);
      expect_own_bits<three_compartment_clearances>(choice);
    }
}

// Every kind of error and of censoring, predictions over many decades: the same bits from all
// kernels, one by one or together, and the sums of the observations' own terms in long double.
TEST(Densities, GiveEveryIndividualItsOwnBits) {
  const std::vector<endpoint> described = {
      {"a", {error_kind::additive, 0.4, 0.0, false, false}},
      {"b", {error_kind::proportional, 0.0, 0.3, false, false}},
      {"c", {error_kind::combined, 0.2, 0.1, false, false}},
      {"d", {error_kind::log_normal, 0.5, 0.0, false, false}},
      {"e", {error_kind::combined_sd, 0.2, 0.1, false, false}},
      {"f", {error_kind::power, 0.0, 0.3, false, false, 0.7, false}},
      {"g", {error_kind::additive, 0.4, 0.0, false, false, 0.0, false, 4.0}},
      {"h", {error_kind::proportional, 0.0, 0.3, false, false, 0.0, false, 2.1}},
      {"i", {error_kind::combined, 0.2, 0.1, false, false, 0.0, false, 5.5}},
      {"j", {error_kind::power, 0.0, 0.3, false, false, 0.7, false, 300.0}},
      {"k", {error_kind::log_normal, 0.5, 0.0, false, false, 0.0, false, 3.0}},
      {"l", {error_kind::box_cox, 0.5, 0.0, false, false, 0.0, false, 0.0, 0.5}},
      {"m", {error_kind::box_cox, 0.5, 0.0, false, false, 0.0, false, 0.0, 0.0}},
      {"n", {error_kind::box_cox, 0.9, 0.0, false, false, 0.0, false, 0.0, 1e-9}},
      {"o", {error_kind::box_cox, 0.5, 0.0, false, false, 0.0, false, 6.0, 1.7}},
      {"p", {error_kind::box_cox, 0.5, 0.0, false, false, 0.0, false, 4.0, -0.3}}};
  const endpoints model(described, 0, {});
  std::vector<double> theta;
  for (const fixed_effect& t : model.parameters()) theta.push_back(t.start);
  subject who;
  std::mt19937_64 engine(11);
  std::normal_distribution<double> normal;
  for (int e = 0; e < static_cast<int>(described.size()); ++e)
    for (const censoring c :
         {censoring::none, censoring::left, censoring::right, censoring::interval, censoring::none})
      append(
          who,
          observation{
              .value = 1.5 * std::exp(normal(engine)), .limit = 0.2, .censored = c, .endpoint = e});
  const std::size_t count = who.observations.size();
  std::vector<double> f(count * n);
  for (double& x : f) x = std::exp(normal(engine));
  for (std::size_t k = 0; k < count; ++k) f[k * n + 5] *= 1e-8;
  f[5 * n + 6] = 1e-310;
  const auto evaluated = [&](const lane_kernel& kernel, std::size_t first, std::size_t some) {
    std::vector<double> both(2 * some);
    model.objectives(who, f.data() + first, n, some, theta.data(), both.data(), both.data() + some,
                     kernel);
    return both;
  };
  const std::vector<double> all = evaluated(best_lane_kernel(), 0, n);
  for (const lane_kernel* kernel : kernels()) {
    SCOPED_TRACE(kernel->name);
    expect_same_bits(evaluated(*kernel, 0, n), all);
    for (std::size_t j = 0; j < n; ++j)
      expect_same_bits(evaluated(*kernel, j, 1), {all[j], all[n + j]});
  }

  const long double two_pi = 6.283185307179586476925286766559L;
  for (std::size_t j = 0; j < n; ++j) {
    long double objective = 0.0L, squares = 0.0L;
    for (std::size_t k = 0; k < count; ++k) {
      const observation& o = who.observations[k];
      const auto at = static_cast<long double>(f[k * n + j]);
      const residual_error& r = described[static_cast<std::size_t>(o.endpoint)].residual;
      const auto lambda = static_cast<long double>(r.kind == error_kind::box_cox      ? r.lambda
                                                   : r.kind == error_kind::log_normal ? 0.0
                                                                                      : 1.0);
      long double s = std::hypot(static_cast<long double>(r.additive), r.proportional * at);
      if (r.kind == error_kind::combined_sd) s = r.additive + r.proportional * at;
      if (r.kind == error_kind::power)
        s = r.proportional * std::pow(at, static_cast<long double>(r.exponent));
      const auto scaled = [&](double y) {
        if (lambda == 1.0L) return (y - at) / s;
        const long double ratio = std::log(static_cast<long double>(y)) - std::log(at);
        if (lambda == 0.0L) return ratio / s;
        return std::pow(at, lambda) * std::expm1(lambda * ratio) / lambda / s;
      };
      const boost::math::students_t_distribution<long double> student(
          r.degrees_of_freedom > 0.0 ? r.degrees_of_freedom : 1.0);
      const auto below = [&](long double z) {
        if (r.degrees_of_freedom > 0.0) return boost::math::cdf(student, z);
        return 0.5L * std::erfc(-z / std::sqrt(2.0L));
      };
      const long double z = scaled(o.value);
      if (o.censored == censoring::left) objective -= std::log(below(z));
      if (o.censored == censoring::right) objective -= std::log(below(-z));
      if (o.censored == censoring::interval) {
        const long double low = scaled(o.limit);
        objective -= std::log(low > 0.0L ? below(-low) - below(-z) : below(z) - below(low));
      }
      if (o.censored != censoring::none) continue;
      squares += z * z;
      objective += r.degrees_of_freedom > 0.0 ? -std::log(boost::math::pdf(student, z))
                                              : 0.5L * (z * z + std::log(two_pi));
      objective += std::log(s) + (1.0L - lambda) * std::log(static_cast<long double>(o.value));
    }
    if (std::isinf(objective)) continue;  // a probability too small even for long double
    if (!std::isfinite(static_cast<double>(objective))) {
      EXPECT_FALSE(std::isfinite(all[j])) << j;
      continue;
    }
    EXPECT_NEAR(static_cast<double>(all[j] / objective), 1.0, 1e-13) << j;
    EXPECT_NEAR(static_cast<double>(all[n + j] / squares), 1.0, 1e-13) << j;
  }
}

// A product of so many deviations that it would leave the range of doubles.
TEST(Densities, TakeManyObservationsOfAnySize) {
  for (const double size : {1e-140, 1.0, 3e140})
    for (const error_kind kind : {error_kind::proportional, error_kind::combined}) {
      const endpoints model({{"", {kind, 1e-200, 0.25, false, false}}}, 0, {});
      std::vector<double> theta;
      for (const fixed_effect& t : model.parameters()) theta.push_back(t.start);
      subject who;
      for (int k = 0; k < 3000; ++k) append(who, observation{.value = 1.25 * size});
      const std::vector<double> f(3000, size);
      double objective = 0.0, squares = 0.0;
      model.objectives(who, f.data(), 1, 1, theta.data(), &objective, &squares);
      EXPECT_NEAR(squares / 3000.0, 1.0, 1e-12);
      const double expected =
          3000.0 * (0.5 + std::log(0.25 * size) + 0.5 * std::log(2.0 * std::acos(-1.0)));
      EXPECT_NEAR(objective / expected, 1.0, 1e-12);
    }
}

// Not finite, so that the engine counts a failed evaluation.
TEST(Densities, RefusePredictionsThatTheErrorCannotTake) {
  const double infinity = std::numeric_limits<double>::infinity();
  const double nothing = std::numeric_limits<double>::quiet_NaN();
  const auto objective = [](error_kind kind, double f, censoring c, double y = 2.0,
                            double nu = 0.0) {
    const endpoints model({{"", {kind, 0.3, 0.2, false, false, 0.5, false, nu, 0.5}}}, 0, {});
    std::vector<double> theta;
    for (const fixed_effect& t : model.parameters()) theta.push_back(t.start);
    subject who;
    append(who, observation{.value = y, .limit = 1.0, .censored = c});
    double value = 0.0, squares = 0.0;
    model.objectives(who, &f, 1, 1, theta.data(), &value, &squares);
    return value;
  };
  for (const error_kind kind : {error_kind::additive, error_kind::proportional,
                                error_kind::combined, error_kind::log_normal, error_kind::box_cox})
    for (const double f : {nothing, infinity, -infinity})
      for (const double nu : {0.0, 4.0})
        EXPECT_FALSE(std::isfinite(objective(kind, f, censoring::none, 2.0, nu))) << f;
  for (const error_kind kind : {error_kind::log_normal, error_kind::box_cox})
    for (const double nu : {0.0, 4.0})
      for (const double bad : {0.0, -1.0}) {
        EXPECT_FALSE(std::isfinite(objective(kind, bad, censoring::none, 2.0, nu)));
        EXPECT_FALSE(std::isfinite(objective(kind, bad, censoring::left, 2.0, nu)));
        EXPECT_FALSE(std::isfinite(objective(kind, 2.0, censoring::none, bad, nu)));
      }
  for (const censoring c :
       {censoring::none, censoring::left, censoring::right, censoring::interval}) {
    EXPECT_FALSE(std::isfinite(objective(error_kind::proportional, 0.0, c)));
    EXPECT_TRUE(std::isfinite(objective(error_kind::combined, 0.0, c)));
  }
}

// Any number of samples and quantities; beside Eigen's products, which sum in another order.
TEST(WeighedProducts, AreEigensAndOfTheSameBitsWithEveryKernel) {
  std::srand(3);
  for (const auto& [samples, columns, others] :
       {std::array{1, 1, 1}, {7, 2, 3}, {64, 3, 5}, {77, 5, 4}, {513, 7, 1}}) {
    const Eigen::MatrixXd x = Eigen::MatrixXd::Random(samples, columns);
    const Eigen::MatrixXd y = Eigen::MatrixXd::Random(samples, others);
    const Eigen::VectorXd weights = Eigen::VectorXd::Random(samples).cwiseAbs();
    for (const Eigen::MatrixXd* by : {&y, &x}) {
      const Eigen::MatrixXd expected = x.transpose() * weights.asDiagonal() * *by;
      std::vector<Eigen::MatrixXd> found;
      for (const lane_kernel* with : kernels()) {
        Eigen::MatrixXd& sums = found.emplace_back(columns, by->cols());
        with->weigh_products({{x.data(), static_cast<std::size_t>(x.cols())},
                              {by->data(), static_cast<std::size_t>(by->cols())},
                              static_cast<std::size_t>(samples),
                              weights.data(),
                              static_cast<std::size_t>(samples),
                              sums.data()});
        EXPECT_LT((sums - expected).cwiseAbs().maxCoeff(), 1e-13 * samples);
        EXPECT_EQ(sums, found.front());
      }
      if (by == &x) {
        EXPECT_EQ(found.front(), found.front().transpose());
      }
    }
  }
}

}  // namespace
}  // namespace varda
