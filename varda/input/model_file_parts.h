// SPDX-License-Identifier: Apache-2.0
//
// The sections of a model file, each read and checked by a file of its own. They are read in the
// order in which they stand here: a later one may ask what an earlier one found.
#pragma once

#include <array>
#include <map>
#include <string>

#include "varda/input/section.h"
#include "varda/model/specification.h"

namespace varda {

// Keys of the residual deviations, and their names in the results.
inline constexpr std::array deviation_keys = {"additive", "proportional", "exponent", "log_normal"};

void read_data(section from, model_specification& file);
// [residual] and [endpoint]. `places`: by "endpoint.NAME", where formulas are that may be refused.
void read_endpoints(section& root, model_specification& file,
                    std::map<std::string, section>& places);
// Formulas may name columns of the data set, which is why this one reads its header.
void read_structure(section from, const std::map<std::string, section>& places,
                    const file_access& text_of, findings& warnings, model_specification& file);
// The formulas of a structure in equations; a part of read_structure.
void read_equations(section& from, const std::map<std::string, section>& places,
                    const file_access& text_of, findings& warnings, model_specification& file);
// The tables of formulas that are there, those of a system with states.
void read_formula_tables(section& from, equation_text& text);
// A ready structure, as equations; a part of read_structure.
struct ready_structure;
void read_ready_structure(section& from, const ready_structure& chosen,
                          const std::map<std::string, section>& places, const file_access& text_of,
                          findings& warnings, model_specification& file);
void read_parameters(section from, model_specification& file);
void read_omega(section from, model_specification& file);
// Whether outputs and endpoints match.
void check_outputs(section& root, const model_specification& file);
void read_estimation(section from, model_specification& file);

}  // namespace varda
