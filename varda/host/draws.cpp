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

// log of share x density of a component at every sample, by forward substitution.
Eigen::ArrayXd log_density(const draw_component& of, double share,
                           const Eigen::Ref<const Eigen::MatrixXd>& phi) {
  const Eigen::Index effects = phi.rows();
  const Eigen::Index samples = phi.cols();
  const double constant = std::log(share) - of.factor.diagonal().array().log().sum() -
                          0.5 * static_cast<double>(effects) * std::log(2.0 * std::numbers::pi);
  const row_major factor = of.factor;
  std::vector<sample_group> z(static_cast<std::size_t>(effects));
  Eigen::ArrayXd result(samples);
  for (Eigen::Index first = 0; first < samples; first += group_of_samples) {
    const Eigen::Index count = std::min(samples - first, group_of_samples);
    sample_group sum = sample_group::Constant(constant);
    for (Eigen::Index a = 0; a < effects; ++a) {
      sample_group x = sample_group::Constant(phi(a, first));
      for (Eigen::Index k = 1; k < count; ++k) x(k) = phi(a, first + k);
      x -= of.centre(a);
      for (Eigen::Index b = 0; b < a; ++b) x -= factor(a, b) * z[static_cast<std::size_t>(b)];
      x /= factor(a, a);
      sum -= 0.5 * x.square();
      z[static_cast<std::size_t>(a)] = x;
    }
    result.segment(first, count) = sum.head(count);
  }
  return result;
}

// Samples of a component, made of standard normal deviates: both random effects x samples.
void place(const draw_component& of, const Eigen::MatrixXd& normals,
           Eigen::Ref<Eigen::MatrixXd> phi) {
  const Eigen::Index effects = normals.rows();
  const Eigen::Index samples = normals.cols();
  const row_major factor = of.factor;
  std::vector<sample_group> z(static_cast<std::size_t>(effects));
  for (Eigen::Index first = 0; first < samples; first += group_of_samples) {
    const Eigen::Index count = std::min(samples - first, group_of_samples);
    for (Eigen::Index b = 0; b < effects; ++b) {
      sample_group& own = z[static_cast<std::size_t>(b)];
      own.setConstant(normals(b, first));
      for (Eigen::Index k = 1; k < count; ++k) own(k) = normals(b, first + k);
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
