// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>
#include <vector>

#include "varda/model/population.h"
#include "varda/simulation/simulate.h"

namespace varda {

// Parameters as uncertain as their estimates: draws from the normal distribution of the estimates
// on the estimation scale (varda/inference/estimation_scale.h), one for each replicate. A draw
// whose omega is not positive definite is drawn again; `again` counts them. `names` and
// `covariance` are those of the estimated quantities. Throws bad_input where these are not the
// model's, or where no draw in a hundred can be used.
std::vector<drawn_parameters> draw_parameters(const population_model& model,
                                              const drawn_parameters& estimates,
                                              const std::vector<std::string>& names,
                                              const Eigen::MatrixXd& covariance, int replicates,
                                              int seed, int& again);

}  // namespace varda
