// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "varda/model/population.h"
#include "varda/support/finding.h"

namespace varda {

// What is legal and hardly meant: values of another scale than the rest, or than the predictions at
// the start values with all random effects 0, observations that stand twice, logarithms under an
// error that is proportional to the value, covariates that are the same everywhere. Warnings, each
// with the first place; docs/data.md has the thresholds. The model must have passed check_start().
findings implausible(const population_model& model);

}  // namespace varda
