// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>
#include <vector>

#include "varda/host/job.h"
#include "varda/input/model_file.h"
#include "varda/run/fit_result.h"

namespace varda {

// Exit statuses of the program.
enum exit_status : int {
  converged = 0,
  sound = 0,  // of a check
  failure = 1,
  unusable_input = 2,
  not_converged = 3
};

// A `fit` or `evaluate` as the command line asks for it.
struct run_request {
  task what = task::fit;
  std::string model_path;
  std::string output_path;
  setting_overrides overrides;
  bool report = false;  // report.html besides
  bool quiet = false;
  bool records_to_terminal = false;  // the library's own records; otherwise records.txt
  bool resume = false;               // take up the unfinished fit in the folder
  std::string from;  // folder of a fit whose estimates are the start values, or empty
  std::vector<std::string> command;  // as it was typed
};

// Reads, runs, reports. Takes the threads that the settings ask for. Only the root process prints
// and writes. Throws bad_input and std::exception; returns converged or not_converged.
exit_status run(const run_request& request, job& peers);

}  // namespace varda
