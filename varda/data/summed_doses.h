// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "varda/data/dataset.h"

namespace varda {

// Sums over the doses into the first compartment are written out dose by dose: no more of them than
// this between two resets.
inline constexpr int most_summed_doses = 64;

// The most doses into the first compartment that any subject gets between two resets, at least 1.
// Throws bad_input at what no such sum can take: an infusion into the first compartment, any dose
// at steady state (which stands for endless doses), and more doses than most_summed_doses.
int count_summed_doses(const dataset& data);

}  // namespace varda
