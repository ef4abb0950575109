// SPDX-License-Identifier: Apache-2.0
//
// A whole fit split by stage, for docs/performance.md and docs/processes.md:
//
//   build/bench/bin/fit_stages MODEL.toml [RUNS [THREADS]]
//   mpirun -n 2 build/bench/bin/fit_stages MODEL.toml RUNS THREADS
//
// Prints the fastest of RUNS fits, by the sum of their stages. Without THREADS it takes one.
#include <sys/resource.h>

#include <cstdio>
#include <cstdlib>
#include <exception>
#include <utility>

#include "statsubs/state/output_units.h"
#include "varda/host/engine_host.h"
#include "varda/input/model_file.h"
#include "varda/run/fit.h"

namespace {

double total(const varda::timings& t) {
  return t.start + t.iterations + t.likelihood + t.quadrature + t.standard_errors + t.diagnostics;
}

void print(const varda::population_model& model, const varda::job& peers,
           const varda::fit_result& of) {
  const varda::timings& t = of.times;
  rusage usage{};
  getrusage(RUSAGE_SELF, &usage);
  std::printf("%s, %d subjects, %d observations, %d processes, %d threads each: %s\n",
              model.specification().path.c_str(), model.subjects(), model.data().observations(),
              peers.size(), peers.threads().size(), of.converged ? "converged" : "not converged");
  std::printf("  start               %9.4f s\n", t.start);
  std::printf("  iterations          %9.4f s, %d of them\n", t.iterations,
              static_cast<int>(of.iterations.size()));
  std::printf("  likelihood          %9.4f s\n", t.likelihood);
  std::printf("  quadrature          %9.4f s\n", t.quadrature);
  std::printf("  standard errors     %9.4f s\n", t.standard_errors);
  std::printf("  diagnostics         %9.4f s\n", t.diagnostics);
  std::printf("  all of these        %9.4f s\n", total(t));
  std::printf("  evaluations         %9.0f by this process\n", static_cast<double>(of.evaluations));
  std::printf("  largest memory      %9.1f MB\n", static_cast<double>(usage.ru_maxrss) / 1024.0);
}

}  // namespace

int main(int argc, char** argv) {
  varda::job peers(&argc, &argv);
  if (argc < 2) return std::fprintf(stderr, "usage: fit_stages MODEL.toml [RUNS [THREADS]]\n"), 2;
  const int runs = argc > 2 ? std::atoi(argv[2]) : 1;
  peers.use_threads(argc > 3 ? std::atoi(argv[3]) : 1);
  statsubs::take_unit(
      statsubs::standard_output_unit, [](void*, const char*, int) {}, nullptr);
  try {
    varda::findings warnings;
    varda::model_specification file = varda::read_model_file(argv[1], warnings);
    varda::dataset data = varda::read_dataset(file.data, warnings);
    const varda::population_model model(std::move(file), std::move(data));
    varda::fit_result best;
    for (int run = 0; run < runs; ++run) {
      varda::engine_host host(model, peers);
      varda::fit_result now = varda::fit(host, varda::no_progress);
      if (run == 0 || total(now.times) < total(best.times)) best = std::move(now);
    }
    if (peers.is_root()) print(model, peers, best);
  } catch (const std::exception& error) {
    std::fprintf(stderr, "%s\n", error.what());
    return 1;
  }
}
