// SPDX-License-Identifier: Apache-2.0
//
// The tables .ext, .phi, .cov and .cor in the layout that tools for population models read: a line
// TABLE NO., a line of column names, and fields of 13 characters. Every entry of theta is a THETA,
// on the scale that a user reads, the residual deviations too; so SIGMA(1,1) is 1 and fixed. The
// random effects per occasion are further OMEGA and PHI.
#pragma once

#include <string>

#include "varda/model/population.h"
#include "varda/run/fit_result.h"
#include "varda/support/text_pieces.h"

namespace varda {

// The iterations, and rows of their own for what holds at the end (docs/output-files.md).
std::string ext_table(const population_model& model, const fit_result& result);

// Per subject the conditional mean of phi, its covariance, and -2 log-likelihood without constant.
text_pieces phi_table(const population_model& model, const fit_result& result);

// Covariance of the estimates on the scale of the .ext; correlations with the standard errors in
// the diagonal. Zero where a quantity is fixed. Only where standard errors are known.
std::string cov_table(const population_model& model, const fit_result& result);
std::string cor_table(const population_model& model, const fit_result& result);

// Which quantity stands under which column name: `column,name,fixed`.
std::string legend_csv(const population_model& model);

}  // namespace varda
