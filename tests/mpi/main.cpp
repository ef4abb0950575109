// SPDX-License-Identifier: Apache-2.0
#include <gtest/gtest.h>
#include <mpi.h>

#include "statsubs/state/global_variables.h"

// Starts the tests of one process of a job, with its rank and the number of processes in place.
int main(int argc, char** argv) {
  namespace gv = statsubs::global_variables;
  MPI_Init(&argc, &argv);
  testing::InitGoogleTest(&argc, argv);
  MPI_Comm_rank(MPI_COMM_WORLD, &gv::myid);
  MPI_Comm_size(MPI_COMM_WORLD, &gv::numprocs);
  const int failed = RUN_ALL_TESTS();
  MPI_Finalize();
  return failed;
}
