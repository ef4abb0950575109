// SPDX-License-Identifier: Apache-2.0
#include "varda/input/model_file_parts.h"

#include <fmt/format.h>

#include "statsubs/quadrature/getghnodes.h"

namespace varda {

void read_estimation(section from, model_specification& file) {
  constexpr int many = 1000000;
  estimation_settings& s = file.estimation;
  s.samples = from.whole_number_or("samples", s.samples, least_samples, most_samples);
  s.max_iterations = from.whole_number_or("max_iterations", s.max_iterations, 1, many);
  s.seed = from.whole_number_or("seed", s.seed, 1, largest_seed);
  s.points = static_cast<point_kind>(from.word_or("sampling", 0, {"sobol", "random"}));
  s.fresh_points = from.word_or("points", 0, {"common", "fresh"}) == 1;
  s.scramble =
      static_cast<int>(from.word_or("scramble", 1, {"none", "owen", "faure-tezuka", "both"}));
  s.proposal = static_cast<proposal_family>(from.word_or(
      "proposal", 0, {"normal", "population", "t", "laplace", "mixture2", "mixture3"}));
  s.t_df = from.whole_number_or("t_df", s.t_df, 3, 1000);
  s.acceptance_ratio = from.number_or("acceptance_ratio", s.acceptance_ratio);
  if (!(s.acceptance_ratio > 0.0 && s.acceptance_ratio <= 1.0))
    throw from.error("E-MODEL-RANGE", "acceptance_ratio",
                     fmt::format("{} is out of range", s.acceptance_ratio),
                     "it must lie above 0 and at most at 1");
  s.resamples = from.whole_number_or("resamples", s.resamples, 30, many);
  s.burn_in = from.whole_number_or("burn_in", s.burn_in, 0, many);
  s.freeze_omega = from.flag_or("freeze_omega_in_burn_in", s.freeze_omega);
  s.run_all = from.flag_or("run_all", s.run_all);
  s.tolerance = from.number_or("tolerance", s.tolerance);
  if (!(s.tolerance > 0.0 && s.tolerance < 1.0))
    throw from.error("E-MODEL-RANGE", "tolerance", fmt::format("{} is out of range", s.tolerance),
                     "it must lie between 0 and 1");
  s.start = static_cast<start_kind>(from.word_or("start", 0, {"map", "presample"}));
  s.presamples = from.whole_number_or("presamples", s.presamples, least_presamples, most_samples);
  s.map_np = from.whole_number_or("map_np", s.map_np, 0, 1000);
  s.map_assist = from.whole_number_or("map_assist", s.map_assist, 0, many);
  s.standard_errors = static_cast<standard_error_kind>(
      from.word_or("standard_errors", 0, {"information", "score", "sandwich", "none"}));
  s.se_samples = from.whole_number_or("se_samples", s.se_samples, least_samples, most_samples);
  s.npde_samples = from.whole_number_or("npde_samples", s.npde_samples, 0, 100000);
  s.replicates = from.whole_number_or("replicates", s.replicates, 2, 1000);
  if (from.has("likelihood_samples"))
    s.likelihood_samples =
        from.whole_number_or("likelihood_samples", 0, least_samples, most_samples);
  s.likelihood = static_cast<likelihood_kind>(from.word_or("likelihood", 0, {"sampling", "agq"}));
  s.agq_nodes = from.whole_number_or("agq_nodes", s.agq_nodes, 1, statsubs::most_ghnodes);
  from.refuse_leftovers();
}

}  // namespace varda
