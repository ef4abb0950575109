// SPDX-License-Identifier: Apache-2.0
//
// What a run leaves behind. Every report is a function of the model and the result alone; docs/
// output-files.md describes them for users. Nothing but run.json and the last line of the summary
// depends on the machine. What grows with the subjects comes in pieces, from the model and the
// result that were given.
#pragma once

#include <string>
#include <vector>

#include "varda/model/population.h"
#include "varda/run/fit_result.h"
#include "varda/support/text_pieces.h"

namespace varda {

// Schema of fit.json and evaluate.json; raised when a key changes its meaning or goes.
inline constexpr int json_schema_version = 1;

text_pieces json_report(const population_model& model, const fit_result& result);

// What differs between equal runs: the command line, processes, times.
std::string run_json(const fit_result& result, const std::vector<std::string>& command);

// Tables with a header line, comma separated, numbers that read back to the same double.
std::string estimates_csv(const population_model& model, const fit_result& result);
std::string iterations_csv(const population_model& model, const fit_result& result);
text_pieces subjects_csv(const population_model& model, const fit_result& result);
// One row per observation: predictions, residuals, NPDE and the individual parameters in force.
text_pieces rows_csv(const population_model& model, const fit_result& result);

// A field of a table; one that holds a separator or a quote is quoted, its quotes doubled.
std::string csv_field(const std::string& text);

// Page one, for people.
std::string summary(const population_model& model, const fit_result& result);

}  // namespace varda
