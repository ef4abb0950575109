// SPDX-License-Identifier: Apache-2.0
#include "varda/method/em/mstep.h"

#include <algorithm>
#include <cmath>

#include "statsubs/mstep/lrtheta.h"
#include "statsubs/mstep/predetamu.h"
#include "statsubs/state/global_variables.h"
#include "varda/method/em/conditional_maximum.h"

namespace varda {

namespace gv = statsubs::global_variables;

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
  const bool closed_form = !flat && (free_deviations == 0 || model.residual().has_one_scale());
  if (closed_form) numerical_.clear();
}

void maximisation_step::update(const e_step& found, proposals& follow, bool freeze_omega) {
  const population_model& model = host_.model();
  held_.clear();
  Eigen::VectorXd theta = host_.theta();
  const Eigen::MatrixXd moved = regress(found, theta);
  if (is_closed_form())
    update_residual(found, theta);
  else
    for (const int position :
         conditional_maximum(model, found, host_.theta(), numerical_).move(theta))
      held_.push_back(position);

  if (!freeze_omega) update_omega(found, moved);
  host_.set_theta(theta);
  for (int i = 0; i < model.subjects(); ++i)
    if (model.observations(i) > 0) follow.shift(i, moved.col(i));
}

// Updates the mu-referenced part of theta; returns C (beta_old - beta_new), one subject a column.
Eigen::MatrixXd maximisation_step::regress(const e_step& found, Eigen::VectorXd& theta) {
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
    const Eigen::VectorXd beta = solve(individual, free, theta);
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
      held_.push_back(position);
      settled = false;
    }
    free = inside;
  }

  // The library predicts the means of the columns that it solved for; held and fixed ones are ours.
  Eigen::MatrixXd moved = old_means;
  host_.select_columns(free);
  Eigen::VectorXd beta(static_cast<Eigen::Index>(free.size()));
  for (std::size_t k = 0; k < free.size(); ++k) {
    const int position = model.columns()[static_cast<std::size_t>(free[k])].theta;
    beta(static_cast<Eigen::Index>(k)) =
        model.thetas()[static_cast<std::size_t>(position)].regression(theta(position));
  }
  for (int i = 0; i < model.subjects(); ++i) {
    Eigen::Map<Eigen::VectorXd> predicted(gv::xmusub.data(), model.random_effects());
    predicted.setZero();
    if (!free.empty())
      statsubs::predetamu(i + 1, beta.data(), model.random_effects(), 0,
                          static_cast<int>(free.size()), gv::muetamap.data());
    moved.col(i) -= predicted + fixed_part(i, free, theta);
  }
  host_.select_columns(free_columns_);
  return moved;
}

// The part of C_i beta that the columns outside `free` contribute.
Eigen::VectorXd maximisation_step::fixed_part(int subject, const std::vector<int>& free,
                                              const Eigen::VectorXd& theta) const {
  const population_model& model = host_.model();
  Eigen::VectorXd part = Eigen::VectorXd::Zero(model.random_effects());
  for (std::size_t c = 0; c < model.columns().size(); ++c) {
    const int column = static_cast<int>(c);
    if (std::find(free.begin(), free.end(), column) != free.end()) continue;
    const design_column& at = model.columns()[c];
    const fixed_effect& t = model.thetas()[static_cast<std::size_t>(at.theta)];
    part(at.eta) += model.design(subject, column) * t.regression(theta(at.theta));
  }
  return part;
}

// Weighted least squares for the coefficients of `free`, the others as they stand in theta.
Eigen::VectorXd maximisation_step::solve(const Eigen::MatrixXd& individual,
                                         const std::vector<int>& free,
                                         const Eigen::VectorXd& theta) const {
  const population_model& model = host_.model();
  Eigen::MatrixXd rest = individual;
  for (int i = 0; i < model.subjects(); ++i) rest.col(i) -= fixed_part(i, free, theta);
  host_.select_columns(free);
  Eigen::VectorXd solution = Eigen::VectorXd::Zero(theta.size());
  const int columns = static_cast<int>(free.size());
  statsubs::lrtheta(columns, solution.data(), rest.data(), nullptr, nullptr, model.random_effects(),
                    0, columns, gv::muetamap.data());
  return solution.head(columns);
}

void maximisation_step::update_omega(const e_step& found, const Eigen::MatrixXd& moved) {
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
  omega_is_sound_ = host_.set_omega(omega);
}

void maximisation_step::update_residual(const e_step& found, Eigen::VectorXd& theta) const {
  const population_model& model = host_.model();
  const Eigen::Index last = theta.size() - 1;
  if (model.thetas().back().fixed) return;
  double squares = 0.0;
  double count = 0.0;
  for (int i = 0; i < model.subjects(); ++i) {
    const double n = model.observations(i);
    if (n == 0) continue;
    squares += n * found.subjects[static_cast<std::size_t>(i)].scaled_squares;
    count += n;
  }
  theta(last) *= std::sqrt(squares / count);
}

}  // namespace varda
