// SPDX-License-Identifier: Apache-2.0
#include <cassert>
#include <cstdio>
#include <cstdlib>

#include "statsubs/support/parallel.h"

namespace statsubs::support {

int job_size() {
  return 1;
}

const char* job_kind() {
  return "the library is built without MPI";
}

void allreduce_sum(vector_view<double> /*partial*/, [[maybe_unused]] int numprocs) {
  assert(numprocs == 1);
}

void barrier([[maybe_unused]] int numprocs) {
  assert(numprocs == 1);
}

void abort_job(int status) {
  std::exit(status);
}

void stop_process(const char* message) {
  std::fprintf(stderr, "STOP%s\n", message);
  std::exit(EXIT_SUCCESS);
}

}  // namespace statsubs::support
