// SPDX-License-Identifier: Apache-2.0
//
// First-order absorption into one to three compartments has two sets of parameters for the same
// curves. With peripheral compartments that give back at z_j, and rate constants lambda_i of the
// disposition, an oral dose of 1 has the concentration
//
//   C(s) = ka / V * prod (s + z_j) / ((s + ka) prod (s + lambda_i))
//
// as its Laplace transform, which does not change where ka and one lambda take each other's place
// and V becomes V lambda / ka. The exchanges to the peripheral compartments stay positive where
// that lambda lies in the same interval between the z_j as ka does, and there is one in each.
#pragma once

#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace varda {

// By clearances: `exchange` and `peripheral` hold Q and V of every peripheral compartment.
struct oral_compartments {
  double absorption = 0.0;
  double clearance = 0.0;
  double volume = 0.0;
  std::vector<double> exchange;
  std::vector<double> peripheral;
};

// The other set. All of `one` must be above 0.
oral_compartments absorption_twin(const oral_compartments& one);

// From values by the names that parameters of closed forms have, clearances or rate constants;
// `value` gives NaN for a parameter that the model does not have. Nothing where these are not the
// parameters of such a model, or one is not above 0.
std::optional<oral_compartments> oral_compartments_from(
    const std::function<double(const std::string&)>& value);

}  // namespace varda
