// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>

#include "varda/data/csv.h"
#include "varda/data/refusals.h"
#include "varda/model/specification.h"

namespace varda {

// Adds the columns that data_source::define computes and takes out the rows that keep and drop do
// not leave; returns their number. docs/data.md has the rules. What cannot be computed on a row
// that stays is added to `errors`. Throws bad_input where a formula names no column, or a computed
// column has the name of another. Rules that a column APPLIED has on every
// record are passed over.
int apply_row_rules(const data_source& source, csv_table& table, refusals& errors);

// Simulated data follow the rules already: values, times and rows are what the rules have made, and
// cannot be undone (DV may be the logarithm of a column). So a simulated data set names the rules
// that it follows, each with a digest of its formula and of the columns computed before it, blanks
// between them. Empty where a model file has none.
inline constexpr const char* applied_column = "APPLIED";
std::string applied_rules(const data_source& source);

}  // namespace varda
