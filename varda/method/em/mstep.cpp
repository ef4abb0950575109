// SPDX-License-Identifier: Apache-2.0
#include "varda/method/em/mstep.h"

#include <algorithm>
#include <cmath>

#include "varda/host/regression.h"
#include "varda/method/em/conditional_maximum.h"

namespace varda {

maximisation_step::maximisation_step(engine_host& host) : host_(host) {
  const population_model& model = host.model();
  for (std::size_t c = 0; c < model.columns().size(); ++c)
    if (!model.thetas()[static_cast<std::size_t>(model.columns()[c].theta)].fixed)
      free_columns_.push_back(static_cast<int>(c));

  int free_deviations = 0;
  bool flat = false;
  for (std::size_t k = 0; k < model.thetas().size(); ++k) {
    const fixed_effect& t = model.thetas()[k];
    const bool deviation = t.role == theta_role::residual_deviation;
    if (t.fixed || !(deviation || t.moves_predictions())) continue;
    numerical_.push_back(static_cast<int>(k));
    free_deviations += deviation ? 1 : 0;
    flat = flat || !deviation;
  }
  const bool closed_form = !flat && (free_deviations == 0 || model.scale_deviation() >= 0);
  if (closed_form) numerical_.clear();
}

maximisation_step::outcome maximisation_step::update(const e_step& found,
                                                     const std::vector<resampled_points>& drawn,
                                                     proposals& follow, bool freeze_omega) const {
  const population_model& model = host_.model();
  outcome result;
  Eigen::VectorXd theta = host_.theta();
  const Eigen::MatrixXd moved = regress(found, theta, result.held_by_bounds);
  if (is_closed_form())
    update_residual(found, theta);
  else
    for (const int position :
         conditional_maximum(host_, drawn, host_.theta(), numerical_).move(theta))
      result.held_by_bounds.push_back(position);

  if (!freeze_omega) result.omega_is_sound = update_omega(found, moved);
  host_.set_theta(theta);
  for (int i = 0; i < model.subjects(); ++i)
    if (model.observations(i) > 0) follow.shift(i, moved.col(i));
  return result;
}

// Updates the mu-referenced part of theta; returns C (beta_old - beta_new), one subject a column.
Eigen::MatrixXd maximisation_step::regress(const e_step& found, Eigen::VectorXd& theta,
                                           std::vector<int>& held) const {
  const population_model& model = host_.model();
  Eigen::MatrixXd old_means(model.random_effects(), model.subjects());
  Eigen::MatrixXd individual = old_means;
  for (int i = 0; i < model.subjects(); ++i) {
    model.means(i, theta.data(), old_means.col(i).data());
    individual.col(i) = old_means.col(i) + found.subjects[static_cast<std::size_t>(i)].mean;
  }

  std::vector<int> free = free_columns_;
  for (bool settled = false; !settled && !free.empty();) {
    settled = true;
    const Eigen::VectorXd beta = fit_means(host_, free, individual - fixed_part(free, theta));
    std::vector<int> inside;
    for (std::size_t k = 0; k < free.size(); ++k) {
      const int position = model.columns()[static_cast<std::size_t>(free[k])].theta;
      const fixed_effect& t = model.thetas()[static_cast<std::size_t>(position)];
      const double value = t.from_regression(beta(static_cast<Eigen::Index>(k)));
      theta(position) = std::clamp(value, t.lower, t.upper);
      if (value > t.lower && value < t.upper) {
        inside.push_back(free[k]);
        continue;
      }
      held.push_back(position);
      settled = false;
    }
    free = inside;
  }

  // The library predicts the means of the columns that it solved for; held and fixed ones are ours.
  Eigen::VectorXd beta(static_cast<Eigen::Index>(free.size()));
  for (std::size_t k = 0; k < free.size(); ++k) {
    const int position = model.columns()[static_cast<std::size_t>(free[k])].theta;
    beta(static_cast<Eigen::Index>(k)) =
        model.thetas()[static_cast<std::size_t>(position)].regression(theta(position));
  }
  return old_means - (predict_means(host_, free, beta) + fixed_part(free, theta));
}

// The part of C_i beta that the columns outside `free` contribute, one subject a column.
Eigen::MatrixXd maximisation_step::fixed_part(const std::vector<int>& free,
                                              const Eigen::VectorXd& theta) const {
  const population_model& model = host_.model();
  Eigen::MatrixXd part = Eigen::MatrixXd::Zero(model.random_effects(), model.subjects());
  for (std::size_t c = 0; c < model.columns().size(); ++c) {
    const int column = static_cast<int>(c);
    if (std::find(free.begin(), free.end(), column) != free.end()) continue;
    const design_column& at = model.columns()[c];
    const fixed_effect& t = model.thetas()[static_cast<std::size_t>(at.theta)];
    for (int i = 0; i < model.subjects(); ++i)
      part(at.eta, i) += model.design(i, column) * t.regression(theta(at.theta));
  }
  return part;
}

bool maximisation_step::update_omega(const e_step& found, const Eigen::MatrixXd& moved) const {
  const population_model& model = host_.model();
  const auto& elements = model.omega_elements();
  Eigen::MatrixXd omega = host_.omega();
  Eigen::VectorXd sums = Eigen::VectorXd::Zero(static_cast<Eigen::Index>(elements.size()));
  Eigen::VectorXd counts = sums;
  for (int i = 0; i < model.subjects(); ++i) {
    if (model.observations(i) == 0) continue;
    const subject_integral& s = found.subjects[static_cast<std::size_t>(i)];
    const Eigen::VectorXd deviation = s.mean + moved.col(i);
    for (Eigen::Index e = 0; e < sums.size(); ++e)
      for (const auto& [row, column] : elements[static_cast<std::size_t>(e)].places) {
        if (!model.has_effect(i, row)) continue;
        sums(e) += s.covariance(row, column) + deviation(row) * deviation(column);
        counts(e) += 1.0;
      }
  }
  for (Eigen::Index e = 0; e < sums.size(); ++e) {
    const omega_element& element = elements[static_cast<std::size_t>(e)];
    if (element.fixed) continue;
    for (const auto& [row, column] : element.places)
      omega(row, column) = omega(column, row) = sums(e) / counts(e);
  }
  return host_.set_omega(omega);
}

void maximisation_step::update_residual(const e_step& found, Eigen::VectorXd& theta) const {
  const population_model& model = host_.model();
  const int scale = model.scale_deviation();
  if (scale < 0 || model.thetas()[static_cast<std::size_t>(scale)].fixed) return;
  double squares = 0.0;
  double count = 0.0;
  for (int i = 0; i < model.subjects(); ++i) {
    const double n = model.observations(i);
    if (n == 0) continue;
    squares += n * found.subjects[static_cast<std::size_t>(i)].scaled_squares;
    count += n;
  }
  theta(scale) *= std::sqrt(squares / count);
}

}  // namespace varda
