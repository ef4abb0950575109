// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>
#include <vector>

#include "varda/cli/run.h"
#include "varda/host/job.h"

namespace varda {

struct compare_request {
  std::vector<std::string> folders;
  bool nested = false;
  bool json = false;
};

// Reads the folders of runs and prints how they compare on standard output. Only the root process
// works. Throws bad_input.
exit_status compare_runs(const compare_request& request, const job& peers);

}  // namespace varda
