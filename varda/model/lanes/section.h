// SPDX-License-Identifier: Apache-2.0
//
// Values of a graph written out as a list of operations over registers.
#pragma once

#include <cstddef>
#include <functional>
#include <vector>

#include "varda/formula/operation.h"
#include "varda/model/lanes/graph.h"

namespace varda {

// Registers count from the leaves (what the section reads: numbers, and values known from
// elsewhere) over the results in the order asked for to the temporaries.
struct lane_section {
  std::vector<lane_operation> operations;
  std::vector<lane_graph::value> leaves;
  std::size_t results = 0;
  std::size_t temporaries = 0;

  std::size_t registers() const { return leaves.size() + results + temporaries; }
};

// Of values that are no inputs `is_known` tells which stand ready. A product that one sum alone
// uses is joined to it.
lane_section write_section(const lane_graph& graph, const std::vector<lane_graph::value>& results,
                           const std::function<bool(lane_graph::value)>& is_known);

}  // namespace varda
