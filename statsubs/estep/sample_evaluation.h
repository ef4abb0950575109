// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "statsubs/support/array.h"

namespace statsubs {

// Which samples a process evaluates: those whose number is myid modulo numprocs.
struct sample_share {
  int myid;
  int numprocs;
};

// Evaluates the samples (random effects x samples) of this process's share through the host, with
// seteta, settheta and fcnxeta, or with fcnxetas in blocks where the host has it, and leaves the
// others' entries alone.
//   zscoresub  in/out: the shared score, of the evaluation recorded last; 1 where that failed
//   log_likelihood(samples), score(samples)  out: of a failed evaluation -1e50 and 1
//   answer  in/out: the host's last answer to the question for a stop, asked after every
//           evaluation or block. One that is not zero ends the loop at once, and that evaluation or
//           block is not recorded
void evaluate_own_samples(matrix_view<const double> samples, const sample_share& own,
                          vector_view<const double> theta, double& zscoresub,
                          vector_view<double> log_likelihood, vector_view<double> score,
                          int& answer);

}  // namespace statsubs
