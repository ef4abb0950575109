// SPDX-License-Identifier: Apache-2.0
#include "varda/method/em/resampler.h"

#include "statsubs/estep/sample_quality.h"

namespace varda {

namespace {

// Share of the points that must stay effective for a choice to be kept.
constexpr double least_effective_share = 0.8;

}  // namespace

resampler::resampler(int subjects, int points, bool keep)
    : points_(points), keep_(keep), choices_(static_cast<std::size_t>(subjects)) {}

void resampler::choose(choice& chosen, const Eigen::VectorXd& weights) const {
  chosen.samples.resize(static_cast<std::size_t>(points_));
  chosen.drawn_at.resize(points_);
  for (int k = 0; k < points_; ++k) {
    const double u = (k + 0.5) / points_;
    const int j = statsubs::isir(u, weights.data(), static_cast<int>(weights.size())) - 1;
    chosen.samples[static_cast<std::size_t>(k)] = j;
    chosen.drawn_at(k) = weights(j);
  }
}

resampled_points resampler::draw(int subject, const Eigen::VectorXd& mu,
                                 const Eigen::MatrixXd& etas, const Eigen::VectorXd& weights) {
  choice& chosen = choices_[static_cast<std::size_t>(subject)];
  resampled_points result;
  result.weights = Eigen::VectorXd::Constant(points_, 1.0 / points_);
  bool usable = keep_ && !chosen.samples.empty();
  if (usable) {
    for (int k = 0; k < points_; ++k)
      result.weights(k) = weights(chosen.samples[static_cast<std::size_t>(k)]) / chosen.drawn_at(k);
    result.weights /= result.weights.sum();
    usable = 1.0 / result.weights.squaredNorm() > least_effective_share * points_;
  }
  if (!usable) {
    choose(chosen, weights);
    result.weights.setConstant(1.0 / points_);
  }
  result.phi.resize(etas.rows(), points_);
  for (int k = 0; k < points_; ++k)
    result.phi.col(k) = mu + etas.col(chosen.samples[static_cast<std::size_t>(k)]);
  return result;
}

}  // namespace varda
