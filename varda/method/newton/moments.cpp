// SPDX-License-Identifier: Apache-2.0
#include "varda/method/newton/moments.h"

#include <algorithm>
#include <cmath>

#include "varda/method/newton/limits.h"

namespace varda {

using namespace newton_limits;

namespace {

constexpr double enough_per_entry = 2.0;
constexpr double least_loss = 1e-3;

// How far a density is to take over the covariance that its samples gave; the rest is its own. The
// logarithm of the share of effective samples loses half the squared norm of what the covariance is
// wrong by, in units of the right one. That of n samples is wrong by d (d + 1) / n on average
// (Wishart's distribution), the density's own by what its samples have lost, and the squares of the
// two parts of a blend add up. With samples enough nothing of its own is kept.
double trust_in_covariance(double effective_share, double effective_samples, double d) {
  if (effective_samples >= enough_per_entry * d * d) return 1.0;
  // Lost to the widening of the density, which is not wrong.
  const double wide = std::pow(target_ratio, -2.0 / d);
  const double widening = d * (std::log(wide) - 0.5 * std::log(2.0 * wide - 1.0));
  const double own_loss = std::max(-std::log(effective_share) - widening, least_loss);
  const double sampled_loss = 0.5 * d * (d + 1.0) / effective_samples;
  return own_loss / (own_loss + sampled_loss);
}

// Less of it where it may be an error, whose variance is that of normal samples: W. James and
// C. Stein, "Estimation with quadratic loss", Proc. 4th Berkeley Symp. 1 (1961) 361-379.
double shrunk(double skewness, double effective_samples) {
  const double noise = 6.0 / effective_samples;
  const double square = skewness * skewness;
  return square > noise ? skewness * (1.0 - noise / square) : 0.0;
}

}  // namespace

void follow_moments(const Eigen::VectorXd& moments, double effective_share,
                    double effective_samples, draw_component& density) {
  const Eigen::Index d = density.centre.size();
  const double trust =
      trust_in_covariance(effective_share, effective_samples, static_cast<double>(d));
  Eigen::MatrixXd covariance = moments.segment(d, d * d).reshaped(d, d);
  if (trust < 1.0) {
    const Eigen::MatrixXd own =
        std::pow(target_ratio, 1.0 / static_cast<double>(d)) * density.factor;
    covariance = trust * covariance + (1.0 - trust) * own * own.transpose();
  }
  const draw_component moved = single(moments.head(d), covariance, target_ratio).front();
  density.centre = moved.centre;
  density.factor = moved.factor;
  if (moments.size() == d + d * d) return;
  if (density.skewness.size() == 0) density.skewness.setZero(d);
  for (Eigen::Index a = 0; a < d; ++a)
    density.skewness(a) = trust * shrunk(moments(d + d * d + a), effective_samples) +
                          (1.0 - trust) * density.skewness(a);
}

double enough_for_moments(Eigen::Index random_effects) {
  const auto d = static_cast<double>(random_effects);
  return std::min(10.0 * d * d, std::max(160.0, 2.0 * d * (d + 1.0)));
}

double total_share(const std::vector<draw_component>& of) {
  double sum = 0.0;
  for (const draw_component& c : of) sum += c.share;
  return sum;
}

}  // namespace varda
