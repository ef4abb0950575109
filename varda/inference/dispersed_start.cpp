// SPDX-License-Identifier: Apache-2.0
#include "varda/inference/dispersed_start.h"

#include <algorithm>
#include <cmath>

#include "statsubs/estep/proposals.h"
#include "varda/host/points.h"

namespace varda {

namespace {

class start_deviates {
 public:
  start_deviates(int seed, int number)
      : address_(address_of(seed, {point_pass::purpose::start, number}, 0)) {}
  // In (0, 1).
  double uniform() {
    return (static_cast<double>(mixed(address_ + ++drawn_) >> 12) + 0.5) * 0x1p-52;
  }
  double normal() { return statsubs::dnorminv(uniform()); }
  // With a logarithm to base 10 between -decades and decades.
  double factor(double decades) { return std::pow(10.0, decades * (2.0 * uniform() - 1.0)); }

 private:
  std::uint64_t address_;
  std::uint64_t drawn_ = 0;
};

// The standard deviation of the random effect of a typical value; 0 where it has none.
double deviation_behind(const population_model& model, int theta) {
  for (const auto& column : model.columns())
    if (column.theta == theta) return std::sqrt(model.start_omega()(column.eta, column.eta));
  return 0.0;
}

double moved(const population_model& model, int position, start_deviates& draw) {
  constexpr double of_coefficients = 0.5;
  constexpr double of_normal_parameters = 3.0;
  const fixed_effect& t = model.thetas()[static_cast<std::size_t>(position)];
  switch (t.role) {
    case theta_role::residual_deviation:
      return t.start * draw.factor(0.5);
    case theta_role::covariate_effect:
    case theta_role::direct_effect:
      return t.start + of_coefficients * draw.normal();
    case theta_role::typical_value:
      if (t.law == distribution::normal)
        return t.start + of_normal_parameters * deviation_behind(model, position) * draw.normal();
      return t.from_regression(t.regression(t.start) + draw.normal());
    case theta_role::flat_parameter:
      break;
  }
  if (t.is_positive()) return t.start * std::exp(draw.normal());
  return t.start + std::max(std::fabs(t.start), 1.0) * draw.normal();
}

}  // namespace

start_values dispersed_start(const population_model& model, int number) {
  start_values result{model.start_theta(), model.start_omega()};
  if (number == 0) return result;
  start_deviates draw(model.specification().estimation.seed, number);
  for (std::size_t k = 0; k < model.thetas().size(); ++k) {
    const fixed_effect& t = model.thetas()[k];
    const double to = moved(model, static_cast<int>(k), draw);
    // A draw is used up whether the parameter is fixed or not.
    if (!t.fixed) result.theta(static_cast<Eigen::Index>(k)) = std::clamp(to, t.lower, t.upper);
  }
  // Copies of an effect on several occasions move alike, and a fixed block stays.
  Eigen::VectorXd factor = Eigen::VectorXd::Ones(model.random_effects());
  for (const omega_element& e : model.omega_elements()) {
    if (!e.is_variance()) continue;
    const double by = std::sqrt(draw.factor(1.0));
    if (e.fixed) continue;
    for (const auto& [row, column] : e.places) factor(row) = row == column ? by : factor(row);
  }
  result.omega = factor.asDiagonal() * result.omega * factor.asDiagonal();
  return result;
}

}  // namespace varda
