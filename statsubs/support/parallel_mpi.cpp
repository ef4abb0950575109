// SPDX-License-Identifier: Apache-2.0
#include <mpi.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>

#include "statsubs/support/parallel.h"

namespace statsubs::support {

namespace {

bool mpi_is_running() {
  int initialised = 0;
  int finalised = 0;
  MPI_Initialized(&initialised);
  MPI_Finalized(&finalised);
  return initialised != 0 && finalised == 0;
}

}  // namespace

int job_size() {
  int size = 1;
  if (mpi_is_running()) MPI_Comm_size(MPI_COMM_WORLD, &size);
  return size;
}

const char* job_kind() {
  return mpi_is_running() ? "the processes of the job" : "MPI is not running";
}

void allreduce_sum(vector_view<double> partial, int numprocs) {
  if (numprocs == 1) return;
  vector<double> total("the all-reduce", partial.size());
  MPI_Allreduce(partial.data(), total.data(), partial.size(), MPI_DOUBLE_PRECISION, MPI_SUM,
                MPI_COMM_WORLD);
  std::copy(total.begin(), total.end(), partial.begin());
}

void barrier(int numprocs) {
  if (numprocs > 1) MPI_Barrier(MPI_COMM_WORLD);
}

void abort_job(int status) {
  if (mpi_is_running()) MPI_Abort(MPI_COMM_WORLD, status);
  std::exit(status);
}

void stop_process(const char* message) {
  std::fprintf(stderr, "STOP%s\n", message);
  std::fflush(nullptr);
  // MPI_Finalize would wait for processes that may never arrive.
  if (job_size() > 1) MPI_Abort(MPI_COMM_WORLD, EXIT_SUCCESS);
  if (mpi_is_running()) MPI_Finalize();
  std::exit(EXIT_SUCCESS);
}

}  // namespace statsubs::support
