// SPDX-License-Identifier: Apache-2.0
#include "varda/host/draws.h"

#include <algorithm>
#include <cmath>
#include <numbers>
#include <numeric>
#include <vector>

#include "statsubs/estep/normal_quantiles.h"
#include "varda/model/lanes/kernel.h"

namespace varda {

namespace {

constexpr int most_at_once = 1024;
// Samples go through the rows of a factor in groups of so many, which stay in registers.
using sample_group = Eigen::Array<double, lane_quantum, 1>;
using row_major = Eigen::Matrix<double, Eigen::Dynamic, Eigen::Dynamic, Eigen::RowMajor>;
constexpr auto group_of_samples = static_cast<Eigen::Index>(lane_quantum);

// The coordinates of a component, in the order of its random effects.
std::vector<split_normal> coordinates_of(const draw_component& of) {
  std::vector<split_normal> result;
  for (Eigen::Index a = 0; a < of.factor.rows(); ++a)
    result.emplace_back(of.skewness.size() > 0 ? of.skewness(a) : 0.0);
  return result;
}

// x less the mode, in deviations of the half that x is in.
sample_group in_deviations(const split_normal& of, const sample_group& x) {
  const sample_group off = x - of.mode;
  return (off < 0.0).select(off / of.left, off / of.right);
}

// log of share x density of a component at every sample, by forward substitution.
Eigen::ArrayXd log_density(const draw_component& of, double share,
                           const Eigen::Ref<const Eigen::MatrixXd>& phi) {
  const Eigen::Index effects = phi.rows();
  const Eigen::Index samples = phi.cols();
  const std::vector<split_normal> coordinates = coordinates_of(of);
  const bool skewed = of.skewness.size() > 0;
  double constant = std::log(share) - of.factor.diagonal().array().log().sum() -
                    0.5 * static_cast<double>(effects) * std::log(2.0 * std::numbers::pi);
  if (skewed)
    for (const split_normal& c : coordinates) constant -= std::log(0.5 * (c.left + c.right));
  const row_major factor = of.factor;
  std::vector<sample_group> z(static_cast<std::size_t>(effects));
  Eigen::ArrayXd result(samples);
  for (Eigen::Index first = 0; first < samples; first += group_of_samples) {
    const Eigen::Index count = std::min(samples - first, group_of_samples);
    sample_group sum = sample_group::Constant(constant);
    for (Eigen::Index a = 0; a < effects; ++a) {
      const auto own = static_cast<std::size_t>(a);
      sample_group x = sample_group::Constant(phi(a, first));
      for (Eigen::Index k = 1; k < count; ++k) x(k) = phi(a, first + k);
      x -= of.centre(a);
      for (Eigen::Index b = 0; b < a; ++b) x -= factor(a, b) * z[static_cast<std::size_t>(b)];
      x /= factor(a, a);
      sum -= 0.5 * (skewed ? in_deviations(coordinates[own], x) : x).square();
      z[own] = x;
    }
    result.segment(first, count) = sum.head(count);
  }
  return result;
}

// Moves numbers from (0, 1), random effects x samples, so that those of each half of a split normal
// coordinate become those of its half of a normal one.
void part_halves(const draw_component& of, Eigen::MatrixXd& uniforms) {
  const std::vector<split_normal> coordinates = coordinates_of(of);
  for (Eigen::Index a = 0; a < uniforms.rows(); ++a) {
    const split_normal& c = coordinates[static_cast<std::size_t>(a)];
    const double below = c.left / (c.left + c.right);
    for (Eigen::Index k = 0; k < uniforms.cols(); ++k) {
      double& u = uniforms(a, k);
      u = u < below ? 0.5 * u / below : 1.0 - 0.5 * (1.0 - u) / (1.0 - below);
    }
  }
}

// Samples of a component, made of standard normal deviates: both random effects x samples.
void place(const draw_component& of, const Eigen::MatrixXd& normals,
           Eigen::Ref<Eigen::MatrixXd> phi) {
  const Eigen::Index effects = normals.rows();
  const Eigen::Index samples = normals.cols();
  const std::vector<split_normal> coordinates = coordinates_of(of);
  const bool skewed = of.skewness.size() > 0;
  const row_major factor = of.factor;
  std::vector<sample_group> z(static_cast<std::size_t>(effects));
  for (Eigen::Index first = 0; first < samples; first += group_of_samples) {
    const Eigen::Index count = std::min(samples - first, group_of_samples);
    for (Eigen::Index b = 0; b < effects; ++b) {
      sample_group& own = z[static_cast<std::size_t>(b)];
      own.setConstant(normals(b, first));
      for (Eigen::Index k = 1; k < count; ++k) own(k) = normals(b, first + k);
      if (!skewed) continue;
      const split_normal& c = coordinates[static_cast<std::size_t>(b)];
      own = c.mode + (own < 0.0).select(c.left * own, c.right * own);
    }
    for (Eigen::Index a = 0; a < effects; ++a) {
      sample_group x = sample_group::Constant(of.centre(a));
      for (Eigen::Index b = 0; b <= a; ++b) x += factor(a, b) * z[static_cast<std::size_t>(b)];
      for (Eigen::Index k = 0; k < count; ++k) phi(a, first + k) = x(k);
    }
  }
}

// log(exp(a) + exp(b)) in place of a.
void add_to_logarithm(Eigen::ArrayXd& a, const Eigen::ArrayXd& b) {
  Eigen::ArrayXd ratio = -(a - b).abs();
  best_lane_kernel().exponentials(ratio.data(), ratio.data(),
                                  static_cast<std::size_t>(ratio.size()));
  a = a.max(b) + (1.0 + ratio).log();
}

// How many samples of a group come from each component.
std::vector<int> split(const std::vector<draw_component>& from, int samples) {
  std::vector<int> counts;
  for (const draw_component& c : from)
    counts.push_back(std::max(static_cast<int>(std::lround(c.share * samples)), 1));
  return counts;
}

}  // namespace

// With d = right - left and p = left x right: mean mode + sqrt(2 / pi) d, variance
// p + (1 - 2 / pi) d^2, third moment sqrt(2 / pi) d (p + (4 / pi - 1) d^2).
split_normal::split_normal(double skewness) {
  constexpr double two_per_pi = 2.0 / std::numbers::pi;
  const double root = std::sqrt(two_per_pi);
  const double wanted = std::clamp(skewness, -most_skewness, most_skewness);
  // Newton's method from the limit of small skewness, where the third moment is root x d.
  double d = wanted / root;
  for (int k = 0; k < 8; ++k) {
    constexpr double cubic = 3.0 * two_per_pi - 2.0;
    d -= (root * d * (1.0 + cubic * d * d) - wanted) / (root * (1.0 + 3.0 * cubic * d * d));
  }
  const double p = 1.0 - (1.0 - two_per_pi) * d * d;
  const double sum = std::sqrt(d * d + 4.0 * p);
  mode = -root * d;
  left = 0.5 * (sum - d);
  right = 0.5 * (sum + d);
}

int draw_plan::samples_of_group(const std::vector<draw_component>& from) const {
  const std::vector<int> counts = split(from, group_size);
  return std::accumulate(counts.begin(), counts.end(), 0);
}

void subject_drawer::make_room(const population_model& model, int subject,
                               const std::vector<draw_component>& from, const draw_plan& plan,
                               subject_draw& drawn) {
  const int samples = plan.groups * plan.samples_of_group(from);
  drawn.groups = plan.groups;
  drawn.phi.resize(model.random_effects(), samples);
  drawn.log_proposal.resize(samples);
  drawn.predictions.resize(samples, model.observations(subject));
}

std::size_t bytes_of_draw(const population_model& model, int subject,
                          const std::vector<draw_component>& from, const draw_plan& plan) {
  return sizeof(double) * static_cast<std::size_t>(plan.groups * plan.samples_of_group(from)) *
         static_cast<std::size_t>(model.random_effects() + 1 + model.observations(subject));
}

void subject_drawer::draw(int subject, const Eigen::VectorXd& theta,
                          const std::vector<draw_component>& from, const draw_plan& plan,
                          subject_draw& drawn) {
  make_room(joint_.model(), subject, from, plan, drawn);
  for (int g = 0; g < plan.groups; ++g) draw_group(subject, theta, from, plan, g, drawn);
}

void subject_drawer::draw_group(int subject, const Eigen::VectorXd& theta,
                                const std::vector<draw_component>& from, const draw_plan& plan,
                                int group, subject_draw& drawn) {
  const population_model& model = joint_.model();
  const int effects = model.random_effects();
  const std::vector<int> counts = split(from, plan.group_size);
  const int size = std::accumulate(counts.begin(), counts.end(), 0);
  const int first = group * size;
  int at = first;
  for (std::size_t c = 0; c < from.size(); ++c) {
    const int count = counts[c];
    const int address = (plan.pass.index * plan.groups_of_pass + plan.first_group + group) *
                            static_cast<int>(from.size()) +
                        static_cast<int>(c);
    normals_.resize(effects, count);
    points_.fill({plan.pass.why, address}, subject, count, normals_.data());
    if (from[c].skewness.size() > 0) part_halves(from[c], normals_);
    statsubs::normal_quantiles({normals_.data(), effects, count});
    place(from[c], normals_, drawn.phi.middleCols(at, count));
    // A block's intermediate values stay in the cache.
    for (int done = 0; done < count; done += most_at_once) {
      const int now = std::min(most_at_once, count - done);
      joint_.predict(subject, theta.data(), drawn.phi.middleCols(at + done, now),
                     drawn.predictions.middleRows(at + done, now), scratch_);
    }
    evaluations_ += count;
    at += count;
  }
  const auto phi = drawn.phi.middleCols(first, size);
  const auto share = [&](std::size_t c) { return static_cast<double>(counts[c]) / size; };
  Eigen::ArrayXd mixture = log_density(from.front(), share(0), phi);
  for (std::size_t c = 1; c < from.size(); ++c)
    add_to_logarithm(mixture, log_density(from[c], share(c), phi));
  drawn.log_proposal.segment(first, size) = mixture;
}

}  // namespace varda
