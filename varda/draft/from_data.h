// SPDX-License-Identifier: Apache-2.0
//
// A model file whose start values come from data: guesses from what the data show, then the naive
// pooled fit, then variances and residual deviations from its residuals.
#pragma once

#include <map>
#include <optional>
#include <string>
#include <vector>

#include "varda/draft/model_text.h"
#include "varda/host/job.h"
#include "varda/support/files.h"
#include "varda/support/finding.h"

namespace varda {

struct draft_request {
  ready_structure structure;
  bool as_equations = false;
  std::vector<std::string> outputs;            // of the structure that the data have; empty: all
  std::string data;                            // path of the data set
  std::string output;                          // path of the model file to be, or empty
  std::map<std::string, std::string> columns;  // role -> column
  std::optional<error_kind> error;             // of all endpoints; chosen by the data otherwise
};

struct draft_result {
  std::string text;                     // the model file
  std::vector<std::string> recognised;  // what was read from the data, a sentence each
  findings warnings;                    // of the data set
};

// Throws bad_input where data and structure do not go together. Collective.
draft_result draft_from_data(const draft_request& request, const file_access& files,
                             const job& peers);

}  // namespace varda
