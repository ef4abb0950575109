// SPDX-License-Identifier: Apache-2.0
#include "varda/inference/sampled_likelihood.h"

#include <Eigen/Cholesky>
#include <cmath>
#include <limits>
#include <map>
#include <utility>

namespace varda {

namespace {

constexpr double minus_infinity = -std::numeric_limits<double>::infinity();

double log_sum_of_exp(const Eigen::VectorXd& x) {
  const double largest = x.maxCoeff();
  return largest + std::log((x.array() - largest).exp().sum());
}

}  // namespace

sampled_likelihood::parameters::parameters(const Eigen::VectorXd& at_theta,
                                           const Eigen::MatrixXd& omega)
    : theta(at_theta) {
  const Eigen::LLT<Eigen::MatrixXd> factor(omega);
  usable = factor.info() == Eigen::Success;
  if (!usable) return;
  whitener = factor.matrixL().solve(Eigen::MatrixXd::Identity(omega.rows(), omega.cols()));
  log_constant = whitener.diagonal().array().log().sum();
}

// The two log densities of one subject's samples; the one of the data is kept by the values of the
// parameters that it depends on, which are few among the points.
class sampled_likelihood::subject_densities {
 public:
  subject_densities(const sampled_likelihood& owner, int subject, const Eigen::MatrixXd& etas)
      : owner_(owner), model_(owner.host_.model()), subject_(subject) {
    Eigen::VectorXd mu(etas.rows());
    model_.means(subject, owner.estimates_.theta.data(), mu.data());
    phi_ = etas.colwise() + mu;
    by_effect_ = phi_.transpose();
    predict(owner.estimates_.theta);
  }

  Eigen::VectorXd at(const parameters& p) { return of_data(p.theta) + of_random_effects(p); }

 private:
  void predict(const Eigen::VectorXd& theta) {
    owner_.host_.joint().predict(subject_, theta.data(), phi_, prediction_, scratch_);
  }

  const Eigen::VectorXd& of_data(const Eigen::VectorXd& theta) {
    std::vector<double> key;
    for (const int position : owner_.residual_positions_) key.push_back(theta(position));
    const auto known = of_data_.find(key);
    if (known != of_data_.end()) return known->second;
    if (owner_.predictions_move_) predict(theta);
    Eigen::VectorXd density;
    Eigen::VectorXd squares;
    owner_.host_.joint().of_data(subject_, theta.data(), prediction_, density, squares);
    for (double& value : density) value = std::isfinite(value) ? -value : minus_infinity;
    return of_data_.emplace(std::move(key), std::move(density)).first->second;
  }

  Eigen::VectorXd of_random_effects(const parameters& p) const {
    Eigen::VectorXd mu(phi_.rows());
    model_.means(subject_, p.theta.data(), mu.data());
    // By random effect, so that the loops run over the many samples; omega is mostly diagonal.
    Eigen::ArrayXd squares = Eigen::ArrayXd::Zero(phi_.cols());
    Eigen::ArrayXd z(phi_.cols());
    for (Eigen::Index i = 0; i < phi_.rows(); ++i) {
      z.setZero();
      for (Eigen::Index j = 0; j <= i; ++j)
        if (p.whitener(i, j) != 0.0) z += p.whitener(i, j) * (by_effect_.col(j).array() - mu(j));
      squares += z.square();
    }
    return p.log_constant - 0.5 * squares;
  }

  const sampled_likelihood& owner_;
  const population_model& model_;
  int subject_;
  density_workspace scratch_{model_};
  Eigen::MatrixXd phi_;         // random effects x samples
  Eigen::MatrixXd by_effect_;   // its transpose
  Eigen::MatrixXd prediction_;  // samples x observations
  std::map<std::vector<double>, Eigen::VectorXd> of_data_;
};

sampled_likelihood::sampled_likelihood(const engine_host& host, const estimation_scale& scale,
                                       const Eigen::MatrixXd& points)
    : host_(host), estimates_(host.theta(), host.omega()) {
  for (Eigen::Index k = 0; k < points.cols(); ++k)
    points_.emplace_back(scale.theta_at(points.col(k)), scale.omega_at(points.col(k)));
  const population_model& model = host.model();
  for (std::size_t k = 0; k < model.thetas().size(); ++k) {
    const fixed_effect& t = model.thetas()[k];
    const bool flat = t.moves_predictions();
    if (t.fixed || !(flat || t.role == theta_role::residual_deviation)) continue;
    residual_positions_.push_back(static_cast<int>(k));
    predictions_move_ = predictions_move_ || flat;
  }
}

Eigen::VectorXd sampled_likelihood::changes(int subject, const Eigen::MatrixXd& etas,
                                            const Eigen::VectorXd& weights) const {
  subject_densities density(*this, subject, etas);
  Eigen::VectorXd base = weights.array().log().matrix() - density.at(estimates_);
  // A sample that failed weighs nothing, whatever its densities.
  for (double& value : base)
    if (std::isnan(value)) value = minus_infinity;
  Eigen::VectorXd result(static_cast<Eigen::Index>(points_.size()));
  for (Eigen::Index k = 0; k < result.size(); ++k) {
    const parameters& p = points_[static_cast<std::size_t>(k)];
    result(k) = p.usable ? log_sum_of_exp(base + density.at(p)) : minus_infinity;
  }
  return result;
}

}  // namespace varda
