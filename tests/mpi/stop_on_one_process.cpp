// SPDX-License-Identifier: Apache-2.0
//
// The last process of a job starts an inverse search outside its interval while the others wait for
// it, which they must not do for ever.
#include <mpi.h>

#include "statsubs/distributions/dinvr.h"

int main(int argc, char** argv) {
  MPI_Init(&argc, &argv);
  int rank = 0;
  int size = 0;
  MPI_Comm_rank(MPI_COMM_WORLD, &rank);
  MPI_Comm_size(MPI_COMM_WORLD, &size);
  if (rank == size - 1) {
    int status = 0;
    double x = 7.0;
    bool atlow = false;
    bool fhigh = false;
    statsubs::dstinv(0.0, 5.0, 0.5, 0.5, 5.0, 1e-50, 1e-8);
    statsubs::dinvr(status, x, 0.0, atlow, fhigh);
  }
  MPI_Barrier(MPI_COMM_WORLD);
  MPI_Finalize();
  return 3;
}
