// SPDX-License-Identifier: Apache-2.0
//
// The sections of a model file, each read and checked by a file of its own. They are read in the
// order in which they stand here: a later one may ask what an earlier one found.
#pragma once

#include "varda/model/model_file.h"
#include "varda/model/section.h"

namespace varda {

void read_structure(section from, model_file& file);
// The formulas of a structure in equations; a part of read_structure.
void read_equations(section& from, model_file& file);
void read_parameters(section from, model_file& file);
void read_omega(section from, model_file& file);
void read_residual(section from, model_file& file);
void read_estimation(section from, model_file& file);

}  // namespace varda
