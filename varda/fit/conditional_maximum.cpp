// SPDX-License-Identifier: Apache-2.0
#include "varda/fit/conditional_maximum.h"

#include "varda/fit/theta_search.h"

namespace varda {

namespace {

constexpr double first_step = 0.05;
// An inexact maximum makes the EM map jump; this is far below any tolerance on the estimates.
constexpr double search_precision = 1e-7;

}  // namespace

conditional_maximum::conditional_maximum(const population_model& model, const e_step& found,
                                         const Eigen::VectorXd& theta,
                                         const std::vector<int>& positions)
    : model_(model), positions_(positions) {
  for (const int position : positions_)
    predictions_move_ = predictions_move_ || position < model.structural_parameters();
  for (int i = 0; i < model.subjects(); ++i) {
    const resampled_points& drawn = found.subjects[static_cast<std::size_t>(i)].resampled;
    weights_.push_back(drawn.weights);
    individuals_.emplace_back(model.structural_parameters(), drawn.phi.cols());
    predictions_.emplace_back(model.observations(i), drawn.phi.cols());
    for (Eigen::Index point = 0; point < drawn.phi.cols(); ++point) {
      model.individual_parameters(theta.data(), drawn.phi.col(point).data(),
                                  individuals_.back().col(point).data());
      predict(i, point);
    }
  }
}

void conditional_maximum::predict(int subject, Eigen::Index point) {
  const auto i = static_cast<std::size_t>(subject);
  const Eigen::MatrixXd& p = individuals_[i];
  Eigen::MatrixXd& f = predictions_[i];
  model_.structure().predict(model_.data().subjects[i],
                             {p.col(point).data(), static_cast<std::size_t>(p.rows())},
                             {f.col(point).data(), static_cast<std::size_t>(f.rows())});
}

double conditional_maximum::objective(const Eigen::VectorXd& theta) {
  const residual_deviations sd = model_.deviations(theta.data());
  double total = 0.0;
  for (int i = 0; i < model_.subjects(); ++i) {
    const auto at = static_cast<std::size_t>(i);
    for (Eigen::Index point = 0; point < predictions_[at].cols(); ++point) {
      if (predictions_move_) {
        for (const int position : positions_)
          if (position < model_.structural_parameters())
            individuals_[at](position, point) = theta(position);
        predict(i, point);
      }
      double squares = 0.0;
      total += weights_[at](point) *
               model_.residual_objective(i, predictions_[at].col(point).data(), sd, squares);
    }
  }
  return total;
}

std::vector<int> conditional_maximum::move(Eigen::VectorXd& theta) {
  const theta_search search(model_, theta, positions_);
  const minimum best =
      search.minimise([&](const Eigen::VectorXd& x) { return objective(search.theta_at(x)); },
                      first_step, search_precision);
  theta = search.theta_at(best.x);
  return search.at_bounds(best.x);
}

}  // namespace varda
