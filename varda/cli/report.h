// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>

#include "varda/cli/run.h"
#include "varda/host/job.h"

namespace varda {

inline constexpr const char* report_name = "report.html";

struct report_request {
  std::string folder{};
  std::string output{};  // file, or empty for report.html in the folder
  int replicates = 1000;
  int threads = 1;
};

// Writes the report of a run. Only the root process works. Throws bad_input; also where the run's
// data are not those of the run any more.
exit_status write_report(const report_request& request, const job& peers);

}  // namespace varda
