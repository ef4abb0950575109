// SPDX-License-Identifier: Apache-2.0
//
// The constants of docs/processes.md. Alone: what a subject costs in a pass of theophylline's
// closed form and in equations, and what it costs to hand work to threads. Under mpirun: exchanges.
//
//   build/bench/bin/mpi_cost [THREADS]
//   mpirun -n 2 build/bench/bin/mpi_cost
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "statsubs/state/output_units.h"
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

void measure_pass(const char* name, const varda::job& peers) {
  varda::findings warnings;
  varda::model_specification file = varda::read_model_file(
      std::string(SOURCE_FOLDER "/examples/theophylline/") + name + ".toml", warnings);
  varda::dataset data = varda::read_dataset(file.data, warnings);
  const varda::population_model model(std::move(file), std::move(data));
  varda::engine_host host(model, peers);
  const varda::proposals proposals(model, host.omega());
  constexpr int samples = 256;
  varda::weighted_samples drawn{Eigen::MatrixXd(3, samples), Eigen::VectorXd(samples)};
  varda::subject_integral found;
  const double seconds =
      fastest(200, [&] { varda::integrate(host, 0, proposals.of(0), {}, drawn, found); });
  std::printf("%-14s a subject of %d samples, %d threads  %9.1f us\n", name, samples,
              peers.threads().size(), 1e6 * seconds);
}

void measure_threads(const varda::job& peers) {
  const varda::thread_team& threads = peers.threads();
  const double seconds = fastest(2000, [&] { threads.for_each(threads.size(), [](int, int) {}); });
  std::printf("handing work to %d threads  %9.2f us\n", threads.size(), 1e6 * seconds);
}

void measure_exchange(const varda::job& peers) {
  for (const int subjects : {1, 100, 1000, 10000}) {
    constexpr int reals = 100;
    std::vector<double> columns(static_cast<std::size_t>(reals * subjects), 1.0);
    for (const int rows : {1, reals}) {
      const double seconds = fastest(300, [&] { peers.gather(columns.data(), rows, subjects); });
      if (peers.is_root())
        std::printf("exchange of %3d reals of %5d subjects, %d processes  %9.1f us\n", rows,
                    subjects, peers.size(), 1e6 * seconds);
    }
  }
}

}  // namespace

int main(int argc, char** argv) {
  varda::job peers(&argc, &argv);
  statsubs::take_unit(
      statsubs::standard_output_unit, [](void*, const char*, int) {}, nullptr);
  if (peers.size() > 1) {
    measure_exchange(peers);
    return 0;
  }
  for (const int threads : {1, argc > 1 ? std::atoi(argv[1]) : 2}) {
    peers.use_threads(threads);
    measure_pass("theophylline", peers);
    measure_pass("equations", peers);
    measure_threads(peers);
  }
}
