// SPDX-License-Identifier: Apache-2.0
#include "varda/inference/quadrature.h"

#include <fmt/format.h>

#include <Eigen/Core>
#include <algorithm>
#include <array>

#include "statsubs/quadrature/agqgrid.h"
#include "statsubs/quadrature/getghnodes.h"
#include "varda/host/integration.h"
#include "varda/host/subjects.h"
#include "varda/inference/modes.h"
#include "varda/support/text.h"

namespace varda {

namespace {

int grid_points(int nodes, int dimensions) {
  int points = 1;
  for (int i = 0; i < dimensions; ++i) points *= nodes;
  return points;
}

}  // namespace

static_assert(most_random_effects <= statsubs::most_agq_dimensions);

int most_agq_nodes(int effects) {
  std::array<double, statsubs::most_ghnodes> nodes{};
  std::array<double, statsubs::most_ghnodes> weights{};
  int points = 0;
  int info = 1;
  int most = statsubs::most_ghnodes + 1;
  while (info == 1) statsubs::agqinit(--most, effects, nodes.data(), weights.data(), points, info);
  return most;
}

void check_grid(const population_model& model) {
  const estimation_settings& settings = model.specification().estimation;
  const int most = most_agq_nodes(model.random_effects());
  if (settings.likelihood != likelihood_kind::agq || settings.agq_nodes <= most) return;
  throw bad_input(
      {.code = "E-RUN-GRID",
       .message = fmt::format("{} for each of {} make a grid of more points than can be counted",
                              count_of(settings.agq_nodes, "node"),
                              count_of(model.random_effects(), "random effect")),
       .remedy =
           fmt::format("use at most {}, or likelihood = \"sampling\"", count_of(most, "node")),
       .file = model.specification().path,
       .column = "estimation.agq_nodes"});
}

quadrature_estimate integrate_by_quadrature(engine_host& host, int nodes,
                                            const progress_listener& progress) {
  const population_model& model = host.model();
  quadrature_estimate result;
  result.nodes = nodes;
  result.points = grid_points(nodes, model.random_effects());
  result.log_likelihoods.assign(static_cast<std::size_t>(model.subjects()), 0.0);
  const mode_search found = find_every_mode(host);
  if (!found.complete) return result;

  Eigen::MatrixXd own = Eigen::MatrixXd::Zero(2, model.subjects());
  double sum = 0.0;
  int done = 0;
  for (const int i : own_subjects(host)) {
    const auto at = static_cast<std::size_t>(i);
    bool placed = true;
    if (!integrate_on_grid(host, i, found.modes.col(i), found.hessian_factors[at], nodes, own(0, i),
                           placed))
      break;
    own(1, i) = placed ? 0.0 : 1.0;
    sum -= 2.0 * own(0, i);
    done = std::min(done + host.peers().size(), model.subjects());
    progress(
        {.stage = run_stage::quadrature, .step = done, .of = model.subjects(), .minus2ll = sum});
  }
  if (!engine_host::share(own)) return result;
  for (int i = 0; i < model.subjects(); ++i) {
    result.log_likelihoods[static_cast<std::size_t>(i)] = own(0, i);
    const bool indefinite = std::count(found.indefinite.begin(), found.indefinite.end(), i) > 0;
    if (own(1, i) != 0.0 || indefinite) result.placed_by_omega.push_back(i);
    result.minus2ll -= 2.0 * own(0, i);
  }
  result.complete = true;
  return result;
}

}  // namespace varda
