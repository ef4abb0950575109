// SPDX-License-Identifier: Apache-2.0
#include "varda/host/launcher.h"

#include <fmt/format.h>

#include <algorithm>
#include <cstdlib>
#include <iterator>

#include "varda/support/finding.h"

namespace varda {

namespace {

struct job_size {
  const char* count;  // of the processes that were started together
  const char* rank;   // without it the count may be that of an allocation
};

// Open MPI's launcher, those that speak PMI (Hydra, Slurm's through PMI-2), MVAPICH's, and steps of
// Slurm that no MPI library was meant to find. An allocation of Slurm's has SLURM_NTASKS even where
// nothing but its script runs: that one tells nothing.
constexpr job_size sizes[] = {{"OMPI_COMM_WORLD_SIZE", "OMPI_COMM_WORLD_RANK"},
                              {"PMI_SIZE", "PMI_RANK"},
                              {"MV2_COMM_WORLD_SIZE", "MV2_COMM_WORLD_RANK"},
                              {"SLURM_STEP_NUM_TASKS", "SLURM_PROCID"}};

}  // namespace

bool under_a_launcher() {
  const char* marks[] = {"OMPI_COMM_WORLD_SIZE", "PMIX_RANK", "PMI_RANK"};
  return std::any_of(std::begin(marks), std::end(marks),
                     [](const char* mark) { return std::getenv(mark) != nullptr; });
}

void refuse_strangers(int met) {
  if (met > 1) return;
  for (const job_size& size : sizes) {
    const char* count = std::getenv(size.count);
    if (count == nullptr || std::getenv(size.rank) == nullptr) continue;
    // The first to be found started this process: others may have started its launcher.
    if (std::atoi(count) <= 1) return;
    throw bad_input(
        {.code = "E-RUN-LAUNCHER",
         .message = fmt::format("a launcher has started {} processes that cannot communicate: "
                                "each would do the whole run",
                                std::atoi(count)),
         .remedy = "start varda without the launcher, or use a build with the launcher's MPI"});
  }
}

}  // namespace varda
