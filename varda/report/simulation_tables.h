// SPDX-License-Identifier: Apache-2.0
//
// Simulations and predictions as comma-separated tables with a header line. What is not known is
// an empty field; numbers read back to the same double.
#pragma once

#include <string>
#include <vector>

#include "varda/model/population.h"
#include "varda/simulation/predict.h"
#include "varda/simulation/simulate.h"
#include "varda/simulation/vpc.h"

namespace varda {

// The header, and one replicate (from 0) of a data set with its doses and covariates in the columns
// that varda reads, by the names that the model file gives them, so that the rows of a replicate
// are a data set of this model file; APPLIED says which of its rules for rows they follow
// (varda/data/row_rules.h). Values beyond the limits of quantification stand as censored. IPRED is
// the prediction without residual error.
std::string simulation_header(const population_model& model);
std::string simulation_rows(const population_model& model,
                            const std::vector<simulated_subject>& simulated, int replicate);

// A row for every observation of `wanted`.
std::string predictions_csv(const population_model& wanted,
                            const std::vector<predicted_subject>& predicted);

// A row for every statistic of every bin.
std::string vpc_csv(const population_model& model, const vpc_result& result);

// Few lines for people: the bins with observed and simulated medians.
std::string vpc_text(const population_model& model, const vpc_result& result);

}  // namespace varda
