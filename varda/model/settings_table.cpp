// SPDX-License-Identifier: Apache-2.0
#include "varda/model/settings_table.h"

#include <algorithm>
#include <cassert>

#include "statsubs/quadrature/getghnodes.h"
#include "varda/model/words.h"

namespace varda {

namespace {

constexpr int many = 1000000;
constexpr int most_threads = 1024;
constexpr int seconds_of_a_day = 86400;
// Seeds are only hashed, so that any whole number would do.
constexpr int largest_seed = 2147483647;

using settings = estimation_settings;

template <class Value>
word_setting word(Value settings::*member, std::vector<named<Value>> words) {
  word_setting row;
  row.words = words_of(words);
  row.get = [member, words](const settings& s) {
    const auto found = std::find_if(words.begin(), words.end(), [&](const named<Value>& entry) {
      return entry.value == s.*member;
    });
    assert(found != words.end());
    return std::string(found->name);
  };
  row.set = [member, words](settings& s, const std::string& name) {
    for (const named<Value>& entry : words)
      if (name == entry.name) s.*member = entry.value;
  };
  return row;
}

template <class Kind>
word_setting word(Kind settings::*member) {
  return word(member, every_name<Kind>());
}

}  // namespace

const std::vector<setting>& every_setting() {
  constexpr auto included = range_end::included;
  constexpr auto excluded = range_end::excluded;
  static const std::vector<setting> rows = {
      {"method", "Newton steps on the sampled likelihood, or the EM algorithm",
       word(&settings::method)},
      {"samples",
       "points per subject in each iteration of EM; above 300, the least that Newton's method "
       "draws",
       whole_number_setting{&settings::samples, least_samples, many}},
      {"max_iterations", "limit on the iterations of a fit; at most 40 draws of Newton's method",
       whole_number_setting{&settings::max_iterations, 1, many}},
      {"seed", "determines the points and pseudo-random numbers of a run",
       whole_number_setting{&settings::seed, 1, largest_seed}},
      {"sampling", "quasi-random (Sobol) or pseudo-random points", word(&settings::points)},
      {"points", "the same points in every iteration, or new ones",
       word<bool>(&settings::fresh_points, {{"common", false}, {"fresh", true}})},
      {"scramble", "how Sobol points are randomised",
       word<int>(&settings::scramble,
                 {{"none", 0}, {"owen", 1}, {"faure-tezuka", 2}, {"both", 3}})},
      {"proposal", "density from which a subject's points are drawn", word(&settings::proposal)},
      {"t_df", "degrees of freedom of the `t` proposal",
       whole_number_setting{&settings::t_df, 3, 1000}},
      {"acceptance_ratio", "volume of the conditional covariance relative to the proposal's",
       number_setting{&settings::acceptance_ratio, 0.0, excluded, 1.0, included}},
      {"resamples", "points per subject for updates without a formula",
       whole_number_setting{&settings::resamples, 30, many}},
      {"burn_in", "iterations before EM may converge",
       whole_number_setting{&settings::burn_in, 0, many}},
      {"freeze_omega_in_burn_in", "keep the variances at their start values during the burn-in",
       flag_setting{&settings::freeze_omega}},
      {"run_all", "do all `max_iterations`, even if converged", flag_setting{&settings::run_all}},
      {"tolerance", "largest remaining change of an estimate at convergence",
       number_setting{&settings::tolerance, 0.0, excluded, 1.0, excluded}},
      {"start", "first proposals from the subjects' modes or from samples of the population",
       word(&settings::start)},
      {"starts", "number of sets of start values to fit from; the best fit is kept",
       whole_number_setting{&settings::starts, 1, 1000}},
      {"presamples", "points per subject for `start = \"presample\"`",
       whole_number_setting{&settings::presamples, 30, many}},
      {"map_np", "iterations of the MAP-NP start-up; 0 for none",
       whole_number_setting{&settings::map_np, 0, 1000}},
      {"map_assist", "iterations between renewals of the proposals from the modes; 0 for none",
       whole_number_setting{&settings::map_assist, 0, many}},
      {"standard_errors", "standard errors that a fit shows", word(&settings::standard_errors)},
      {"npde_samples", "simulations per subject for the NPDE; 0 leaves them out",
       whole_number_setting{&settings::npde_samples, 0, 100000}},
      {"replicates", "randomisations for the reported likelihood",
       whole_number_setting{&settings::replicates, 2, 1000}},
      {"likelihood_samples", "points per subject in each replicate",
       whole_number_setting{&settings::likelihood_samples, least_samples, many, true}},
      {"likelihood", "by sampling, or also by adaptive Gauss-Hermite quadrature",
       word(&settings::likelihood)},
      {"agq_nodes", "quadrature nodes per random effect",
       whole_number_setting{&settings::agq_nodes, 1, statsubs::most_ghnodes}},
      {"threads", "threads of each process",
       whole_number_setting{&settings::threads, 1, most_threads, true}, false},
      {"checkpoint", "seconds between saved states for `--resume`; 0 saves every step",
       whole_number_setting{&settings::checkpoint, 0, seconds_of_a_day}, false},
  };
  return rows;
}

const whole_number_setting& whole_number_called(const std::string& name) {
  const std::vector<setting>& rows = every_setting();
  const auto row = std::find_if(rows.begin(), rows.end(),
                                [&](const setting& entry) { return entry.name == name; });
  assert(row != rows.end());
  return std::get<whole_number_setting>(row->kind);
}

setting_value value_of(const setting& row, const estimation_settings& in) {
  struct reader {
    const estimation_settings& in;
    setting_value operator()(const whole_number_setting& kind) const { return in.*kind.member; }
    setting_value operator()(const number_setting& kind) const { return in.*kind.member; }
    setting_value operator()(const flag_setting& kind) const { return in.*kind.member; }
    setting_value operator()(const word_setting& kind) const { return kind.get(in); }
  };
  return std::visit(reader{in}, row.kind);
}

}  // namespace varda
