// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "varda/data/csv.h"
#include "varda/data/refusals.h"
#include "varda/model/specification.h"

namespace varda {

// Adds the columns that data_source::define computes and takes out the rows that keep and drop do
// not leave; returns their number. docs/data.md has the rules. What cannot be computed on a row
// that stays is added to `errors`. Throws bad_input where a formula names no column, or a computed
// column has the name of another.
int apply_row_rules(const data_source& source, csv_table& table, refusals& errors);

}  // namespace varda
