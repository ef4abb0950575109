// SPDX-License-Identifier: Apache-2.0
#include <cstdlib>

#include "varda/host/job.h"

namespace varda {

job::job(int* /*argc*/, char*** /*argv*/) {}

job::~job() = default;

void job::sum(double* /*values*/, int /*count*/) const {}

void job::abort(int status) const {
  std::exit(status);
}

}  // namespace varda
