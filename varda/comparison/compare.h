// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "varda/folder/stored_fit.h"

namespace varda {

// A run less the first one of its group.
struct run_difference {
  double minus2ll = 0.0;
  // Monte Carlo error of it. From the subjects' replicates in pairs, so that the part of the error
  // that both runs have in common, because their points are the same, cancels; `paired` is false
  // where the runs have different numbers of replicates, and the errors count as independent.
  double mc_se = 0.0;
  bool paired = true;
  int estimated = 0;
  double aic = 0.0, bic_observations = 0.0, bic_subjects = 0.0;
};

// A likelihood-ratio test of the run with fewer estimated quantities against one with more. That
// one model is a special case of the other is the user's word.
struct ratio_test {
  int smaller = 0, larger = 0;  // positions among the runs
  int degrees_of_freedom = 0;
  double statistic = 0.0;
  double mc_se = 0.0;
  double p = 1.0;  // by the chi-square distribution
  // The same 1.96 Monte Carlo errors to either side.
  double p_least = 1.0, p_most = 1.0;
  // Variances and residual deviations of the larger model alone. The smaller one has them at 0, the
  // end of their range, where the chi-square distribution gives too large a p.
  std::vector<std::string> on_boundary;
  // With one of them, by the equal mixture of chi-square distributions with all degrees of freedom
  // and one less: Self and Liang (1987), J. Am. Stat. Assoc. 82, 605-610; Stram and Lee (1994),
  // Biometrics 50, 1171-1177.
  std::optional<double> p_mixture;
};

// Runs on the same observations and doses, whose likelihoods can be compared.
struct comparison_group {
  std::string apart;  // why they are not in the first group; empty for that one
  std::vector<int> runs;
  std::vector<std::optional<run_difference>> differences;  // by run; nothing where not known
  std::vector<ratio_test> tests;  // of the first run and each other one, where asked for
};

struct comparison {
  std::vector<stored_fit> runs;
  std::vector<comparison_group> groups;  // in the order of their first runs
};

comparison compare(std::vector<stored_fit> runs, bool nested);

}  // namespace varda
