// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>

#include "varda/cli/run.h"
#include "varda/host/job.h"

namespace varda {

struct check_request {
  std::string model_path;
  bool json = false;
};

// Reads model and data as far as they can be read, evaluates every subject once, and prints what it
// finds on standard output. Only the root process works. Returns sound or unusable_input.
exit_status check(const check_request& request, const job& peers);

}  // namespace varda
