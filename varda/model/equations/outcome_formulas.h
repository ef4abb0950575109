// SPDX-License-Identifier: Apache-2.0
//
// The laws of endpoints that are not normal, as graphs: from the values of the formulas that a
// model file gives, the logarithm of the density of a row, what is expected of it, and what a
// simulation needs. docs/endpoints.md has the formulas. What lies outside a law's domain gives NaN.
#pragma once

#include <vector>

#include "varda/model/lanes/graph.h"
#include "varda/model/specification.h"

namespace varda {

// The quantities of a law in the order of outcome_graph::values. From `parameters` on stand those
// that a simulation draws from:
//   counts    mean, share of zeros, and dispersion where there is one
//   binary    probability of 1
//   ordinal   probabilities of the levels up to each but the last
//   event     cumulative hazard since the beginning, hazard
namespace quantity {
inline constexpr int log_density = 0;
inline constexpr int expected = 1;
inline constexpr int parameters = 2;
}  // namespace quantity

// How many quantities a simulation draws from.
int law_parameters(const outcome_text& of);

// What a row says.
struct outcome_row {
  lane_graph::value observed;       // DV
  lane_graph::value log_factorial;  // of DV
  lane_graph::value censoring;      // as a number: the enumerator
};

// NaN where nothing is known.
using outcome_graph = std::vector<lane_graph::value>;

outcome_graph count_graph(lane_graph& graph, const outcome_row& row, lane_graph::value mean,
                          const lane_graph::value* dispersion,
                          const lane_graph::value* zero_inflation);
outcome_graph binary_graph(lane_graph& graph, const outcome_row& row,
                           lane_graph::value probability);
outcome_graph binary_graph(lane_graph& graph, const outcome_row& row, link_kind link,
                           lane_graph::value predictor);
outcome_graph ordinal_graph(lane_graph& graph, const outcome_row& row, link_kind link,
                            const std::vector<double>& levels, lane_graph::value predictor,
                            const std::vector<lane_graph::value>& thresholds);

// The cumulative hazard at the row's time, where the subject's risk began, and at the lower end of
// an interval (of use where the row has one); `total` from time 0 on.
struct event_terms {
  lane_graph::value hazard;
  lane_graph::value total;
  lane_graph::value at_begin;
  lane_graph::value at_limit;
};
outcome_graph event_graph(lane_graph& graph, const outcome_row& row, const event_terms& terms);

}  // namespace varda
