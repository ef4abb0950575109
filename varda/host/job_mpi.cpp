// SPDX-License-Identifier: Apache-2.0
#include <mpi.h>

#include <algorithm>
#include <cstdlib>
#include <vector>

#include "varda/host/job.h"

namespace varda {

namespace {

// What the launchers in use (Open MPI's, Slurm's through PMIx, PMI-2) leave in the environment.
bool under_a_launcher() {
  const char* marks[] = {"OMPI_COMM_WORLD_SIZE", "PMIX_RANK", "PMI_RANK"};
  return std::any_of(std::begin(marks), std::end(marks),
                     [](const char* mark) { return std::getenv(mark) != nullptr; });
}

}  // namespace

job::job(int* argc, char*** argv) {
  if (!under_a_launcher()) return;
  MPI_Init(argc, argv);
  started_ = true;
  MPI_Comm_rank(MPI_COMM_WORLD, &rank_);
  MPI_Comm_size(MPI_COMM_WORLD, &size_);
}

job::~job() {
  if (started_) MPI_Finalize();
}

void job::sum(double* values, int count) const {
  if (size_ == 1) return;
  std::vector<double> total(static_cast<std::size_t>(count));
  MPI_Allreduce(values, total.data(), count, MPI_DOUBLE, MPI_SUM, MPI_COMM_WORLD);
  std::copy(total.begin(), total.end(), values);
}

void job::abort(int status) const {
  if (started_) MPI_Abort(MPI_COMM_WORLD, status);
  std::exit(status);
}

}  // namespace varda
