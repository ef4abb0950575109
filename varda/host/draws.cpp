// SPDX-License-Identifier: Apache-2.0
#include "varda/host/draws.h"

#include <algorithm>
#include <cmath>
#include <numbers>
#include <numeric>

#include "statsubs/estep/proposals.h"

namespace varda {

namespace {

constexpr int most_at_once = 1024;

// log of share x density of a component at every sample.
Eigen::ArrayXd log_density(const draw_component& of, double share,
                           const Eigen::Ref<const Eigen::MatrixXd>& phi) {
  const Eigen::MatrixXd z =
      of.factor.triangularView<Eigen::Lower>().solve(phi.colwise() - of.centre);
  const double constant = std::log(share) - of.factor.diagonal().array().log().sum() -
                          0.5 * static_cast<double>(phi.rows()) * std::log(2.0 * std::numbers::pi);
  return constant - 0.5 * z.colwise().squaredNorm().transpose().array();
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
  Eigen::VectorXd mu(effects);
  model.means(subject, theta.data(), mu.data());
  const std::vector<int> counts = split(from, plan.group_size);
  const int size = std::accumulate(counts.begin(), counts.end(), 0);
  const int first = group * size;
  int at = first;
  Eigen::VectorXd eta(effects);
  for (std::size_t c = 0; c < from.size(); ++c) {
    const int count = counts[c];
    const int address = (plan.pass.index * plan.groups_of_pass + plan.first_group + group) *
                            static_cast<int>(from.size()) +
                        static_cast<int>(c);
    normals_.resize(effects, count);
    points_.fill({plan.pass.why, address}, subject, count, normals_.data());
    for (double& u : normals_.reshaped()) u = statsubs::dnorminv(u);
    const Eigen::VectorXd centre = from[c].centre - mu;
    for (int j = 0; j < count; ++j) {
      statsubs::simmn(effects, centre.data(), from[c].factor.data(), effects,
                      normals_.col(j).data(), eta.data());
      drawn.phi.col(at + j) = eta + mu;
    }
    // A block's predictions stay in the cache until they are put in their place.
    for (int done = 0; done < count; done += most_at_once) {
      const int now = std::min(most_at_once, count - done);
      joint_.predict(subject, theta.data(), drawn.phi.middleCols(at + done, now), predictions_,
                     scratch_);
      drawn.predictions.middleRows(at + done, now) = predictions_;
    }
    evaluations_ += count;
    at += count;
  }
  const auto phi = drawn.phi.middleCols(first, size);
  const auto share = [&](std::size_t c) { return static_cast<double>(counts[c]) / size; };
  Eigen::ArrayXd mixture = log_density(from.front(), share(0), phi);
  for (std::size_t c = 1; c < from.size(); ++c) {
    const Eigen::ArrayXd next = log_density(from[c], share(c), phi);
    const Eigen::ArrayXd larger = mixture.max(next);
    mixture = larger + ((mixture - larger).exp() + (next - larger).exp()).log();
  }
  drawn.log_proposal.segment(first, size) = mixture;
}

}  // namespace varda
