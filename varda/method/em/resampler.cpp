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

void resampler::share(const job& peers) {
  if (peers.size() == 1) return;
  Eigen::VectorXd made(static_cast<Eigen::Index>(choices_.size()));
  for (std::size_t i = 0; i < choices_.size(); ++i)
    made(static_cast<Eigen::Index>(i)) = choices_[i].samples.empty() ? 0.0 : 1.0;
  peers.gather(made.data(), 1, made.size());
  std::vector<std::ptrdiff_t> sizes;
  std::ptrdiff_t total = 0;
  for (const double one : made) {
    sizes.push_back(one > 0.0 ? 2 * points_ : 0);
    total += sizes.back();
  }
  // Positions are whole numbers that a real holds exactly.
  Eigen::VectorXd all = Eigen::VectorXd::Zero(total);
  std::ptrdiff_t at = 0;
  for (std::size_t i = 0; i < choices_.size(); at += sizes[i++]) {
    const choice& own = choices_[i];
    if (sizes[i] == 0 || !peers.owns(static_cast<int>(i))) continue;
    for (int k = 0; k < points_; ++k)
      all(at + k) = static_cast<double>(own.samples[static_cast<std::size_t>(k)]);
    all.segment(at + points_, points_) = own.drawn_at;
  }
  peers.gather(all.data(), sizes);
  at = 0;
  for (std::size_t i = 0; i < choices_.size(); at += sizes[i++]) {
    choice& own = choices_[i];
    own = {};
    if (sizes[i] == 0) continue;
    for (int k = 0; k < points_; ++k) own.samples.push_back(static_cast<Eigen::Index>(all(at + k)));
    own.drawn_at = all.segment(at + points_, points_);
  }
}

}  // namespace varda
