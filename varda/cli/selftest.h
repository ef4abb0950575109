// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "varda/cli/run.h"
#include "varda/host/job.h"

namespace varda {

struct selftest_request {
  bool json = false;
  bool quiet = false;
};

// Solves the reference problems and prints what was expected and found on standard output. Returns
// sound or failure.
exit_status selftest(const selftest_request& request, job& peers);

}  // namespace varda
