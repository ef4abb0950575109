// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "varda/cli/run.h"
#include "varda/host/job.h"

namespace varda {

// What simulate, predict and vpc have in common.
struct source_request {
  std::string path;    // a model file or the folder of a fit
  std::string data;    // another data set, or empty
  std::string output;  // a file; standard output where empty
  std::optional<int> seed;
  int threads = 1;
};

struct simulate_request {
  source_request from;
  int replicates = 1;
  bool uncertainty = false;
};

struct predict_request {
  source_request from;
  std::string times;  // "FROM:TO:STEP" or a list; empty for the rows of the data
  int samples = 2000;
};

struct vpc_request {
  source_request from;
  int replicates = 1000;
  bool uncertainty = false;
  bool prediction_corrected = false;
  bool time_after_dose = false;
  std::string bins;  // a number, or a list of edges; empty for automatic ones
  std::string stratify;
};

// Simulated data, predictions, or the percentiles of a visual predictive check as CSV. Only the
// root process works. Throw bad_input; return sound.
exit_status simulate_data(const simulate_request& request, const job& peers);
exit_status predict_data(const predict_request& request, const job& peers);
exit_status check_visually(const vpc_request& request, const job& peers);

}  // namespace varda
