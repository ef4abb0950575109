// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>
#include <vector>

#include "varda/cli/run.h"
#include "varda/host/job.h"

namespace varda {

struct new_request {
  std::string structure;             // empty: list them
  bool list = false;                 // describe it
  bool as_equations = false;         // write its equations into the model file
  std::string data;                  // data set that start values come from, or empty
  std::string output;                // model file to be written; empty: standard output
  std::vector<std::string> outputs;  // of the structure that are observed; empty: all
  std::vector<std::string> columns;  // "ROLE=NAME"
  std::string error;                 // the word of a residual error, or empty
};

// Lists the structures, describes one, or writes a model file for one. What was read from the data
// goes to the error stream. A file that is there stays: E-RUN-OUTPUT.
exit_status new_model(const new_request& request, job& peers);

}  // namespace varda
