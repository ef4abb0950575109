// SPDX-License-Identifier: Apache-2.0
#include "varda/host/draws.h"

#include <cassert>
#include <cmath>
#include <numbers>

#include "statsubs/estep/fgintegrate.h"
#include "statsubs/state/global_variables.h"

namespace varda {

namespace gv = statsubs::global_variables;

namespace {

// log of share x density of a component at every sample.
Eigen::ArrayXd log_density(const draw_component& of, const Eigen::MatrixXd& phi) {
  const Eigen::MatrixXd z =
      of.factor.triangularView<Eigen::Lower>().solve(phi.colwise() - of.centre);
  const double constant = std::log(of.share) - of.factor.diagonal().array().log().sum() -
                          0.5 * static_cast<double>(phi.rows()) * std::log(2.0 * std::numbers::pi);
  return constant - 0.5 * z.colwise().squaredNorm().transpose().array();
}

// How many of a group's samples each component gets: its share, the first one what is left.
std::vector<int> split(const std::vector<draw_component>& from, int samples) {
  std::vector<int> counts;
  int left = samples;
  for (std::size_t c = 1; c < from.size(); ++c) {
    counts.push_back(std::max(static_cast<int>(std::lround(from[c].share * samples)), 1));
    left -= counts.back();
  }
  counts.insert(counts.begin(), left);
  return counts;
}

}  // namespace

bool draw_subject(engine_host& host, int subject, const std::vector<draw_component>& from,
                  const point_pass& pass, int samples, int groups, subject_draw& drawn) {
  const population_model& model = host.model();
  const int effects = model.random_effects();
  assert(samples % groups == 0);
  const int group_size = samples / groups;
  Eigen::VectorXd mu(effects);
  model.means(subject, host.theta().data(), mu.data());
  drawn.groups = groups;
  drawn.phi.resize(effects, samples);
  drawn.predictions.resize(samples, model.observations(subject));
  const std::vector<int> counts = split(from, group_size);
  // Whatever family the settings name: the density of the mixture is that of normal components.
  const int family = gv::impsampdof;
  gv::impsampdof = 0;
  Eigen::MatrixXd etas(effects, group_size);
  Eigen::VectorXd weights(group_size);
  int at = 0;
  for (int g = 0; g < groups; ++g)
    for (std::size_t c = 0; c < from.size(); ++c) {
      const int count = counts[c];
      Eigen::Map<Eigen::VectorXd>(gv::xmusub.data(), effects) = from[c].centre - mu;
      Eigen::Map<Eigen::MatrixXd>(gv::omegacholsub.data(), effects, effects) = from[c].factor;
      const int address =
          (pass.index * groups + g) * static_cast<int>(from.size()) + static_cast<int>(c);
      host.place_points({pass.why, address}, subject, count);
      double unused = 0.0;
      host.keep_predictions(&drawn.predictions, at);
      statsubs::fgintegrate(subject + 1, count, etas.data(), weights.data(), unused);
      host.keep_predictions(nullptr, 0);
      if (engine_host::stopped()) {
        gv::impsampdof = family;
        return false;
      }
      drawn.phi.middleCols(at, count) = etas.leftCols(count).colwise() + mu;
      at += count;
    }
  gv::impsampdof = family;
  Eigen::ArrayXd mixture = log_density(from.front(), drawn.phi);
  for (std::size_t c = 1; c < from.size(); ++c) {
    const Eigen::ArrayXd next = log_density(from[c], drawn.phi);
    const Eigen::ArrayXd larger = mixture.max(next);
    mixture = larger + ((mixture - larger).exp() + (next - larger).exp()).log();
  }
  drawn.log_proposal = mixture;
  return true;
}

}  // namespace varda
