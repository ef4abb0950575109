// SPDX-License-Identifier: Apache-2.0
//
// Compartment models by brute force, to compare the closed forms with: the differential equations
// of the amounts are integrated from event to event (Boost.Odeint), and a steady state is given
// its doses one by one from long ago.
#pragma once

#include <vector>

#include "varda/data/dataset.h"

namespace test {

// A model with an individual's parameters. Amounts stand in the order central, peripheral, depot.
struct compartments {
  double volume = 1.0;
  double elimination = 0.0;
  std::vector<double> to, from;  // rate constants of the peripheral compartments
  double ka = 0.0;               // 0 without a depot
  bool zero_order = false;       // plain doses into compartment 1 take `duration`
  double duration = 1.0, rate = 1.0;
  double lag = 0.0, bioavailability = 1.0;
};

// The concentrations at the subject's observations, the model by segment.
std::vector<double> integrate(const varda::subject& who, const std::vector<compartments>& model);

}  // namespace test
