// SPDX-License-Identifier: Apache-2.0
//
// The constants of docs/processes.md: what a model evaluation, the work that every process repeats,
// and an all-reduce cost. Run it alone for the first two and under mpirun for the third:
//
//   build/bench/bin/mpi_cost
//   mpirun -n 2 build/bench/bin/mpi_cost
#include <mpi.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <vector>

#include "statsubs/state/global_variables.h"
#include "varda/host/engine_host.h"
#include "varda/inference/proposals.h"
#include "varda/input/model_file.h"

namespace {

// Seconds of the fastest of several runs: the machine's other work only ever adds.
template <class Work>
double fastest(int runs, Work work) {
  double best = 1e300;
  for (int run = 0; run < runs; ++run) {
    const auto begin = std::chrono::steady_clock::now();
    work();
    const std::chrono::duration<double> spent = std::chrono::steady_clock::now() - begin;
    best = std::min(best, spent.count());
  }
  return best;
}

void measure_integration(const varda::job& peers) {
  varda::findings warnings;
  varda::model_specification file =
      varda::read_model_file(SOURCE_FOLDER "/examples/theophylline/theophylline.toml", warnings);
  varda::dataset data = varda::read_dataset(file.data, warnings);
  const varda::population_model model(std::move(file), std::move(data));
  varda::engine_host host(model, peers);
  const varda::proposals proposals(model, host.omega());

  constexpr int samples = 3000;
  const double eta[] = {0.1, -0.1, 0.05};
  const double evaluation = fastest(200,
                                    [&] {
                                      for (int j = 0; j < samples; ++j) host.objective(0, eta);
                                    }) /
                            samples;
  varda::weighted_samples drawn{Eigen::MatrixXd(3, samples), Eigen::VectorXd(samples)};
  varda::subject_integral found;
  const double whole =
      fastest(200, [&] { varda::integrate(host, 0, proposals.of(0), {}, drawn, found); }) / samples;
  std::printf("model evaluation           %8.1f ns\n", 1e9 * evaluation);
  std::printf("repeated by every process  %8.1f ns a sample\n", 1e9 * (whole - evaluation));
}

void measure_all_reduce(const varda::job& peers) {
  for (const int count : {1, 300, 3000, 30000}) {
    std::vector<double> from(static_cast<std::size_t>(count), 1.0);
    std::vector<double> to(from.size());
    const double seconds = fastest(500, [&] {
      MPI_Allreduce(from.data(), to.data(), count, MPI_DOUBLE, MPI_SUM, MPI_COMM_WORLD);
    });
    if (peers.is_root())
      std::printf("all-reduce of %5d reals, %d processes  %8.2f us\n", count, peers.size(),
                  1e6 * seconds);
  }
}

}  // namespace

int main(int argc, char** argv) {
  const varda::job peers(&argc, &argv);
  if (peers.size() == 1)
    measure_integration(peers);
  else
    measure_all_reduce(peers);
}
