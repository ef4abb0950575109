// SPDX-License-Identifier: Apache-2.0
//
// A whole fit split by stage, for docs/performance.md:
//
//   build/bench/bin/fit_stages MODEL.toml [RUNS [MODEL_MICROSECONDS]]
//   mpirun -n 2 build/bench/bin/fit_stages MODEL.toml RUNS MODEL_MICROSECONDS
//
// Prints the fastest of RUNS fits. MODEL_MICROSECONDS makes every evaluation take so long at least,
// which stands for a model that is solved numerically. The share of the model is the number of
// evaluations in the iterations times what one costs, measured apart.
#include <sys/resource.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <exception>

#include "statsubs/state/host.h"
#include "statsubs/state/output_units.h"
#include "varda/host/engine_host.h"
#include "varda/input/model_file.h"
#include "varda/run/fit.h"

namespace {

using steady = std::chrono::steady_clock;
using evaluator = void (*)(const int&, const double*, double&);

evaluator plain_model = nullptr;
double model_microseconds = 0.0;
long long evaluations = 0;

double seconds_since(steady::time_point begin) {
  return std::chrono::duration<double>(steady::now() - begin).count();
}

void slow_model(const int& n, const double* eta, double& f) {
  ++evaluations;
  if (model_microseconds == 0.0) return plain_model(n, eta, f);
  const auto begin = steady::now();
  plain_model(n, eta, f);
  while (seconds_since(begin) < 1e-6 * model_microseconds) {
  }
}

struct run_times {
  varda::timings stages;
  long long loop_evaluations = 0;
  int iterations = 0;
  double one_evaluation = 0.0;  // seconds
  bool converged = false;
};

// Mean over the subjects at their zero deviations, through the table as the library calls it.
double time_of_an_evaluation(const varda::population_model& model) {
  const Eigen::VectorXd eta = Eigen::VectorXd::Zero(model.random_effects());
  const int repeats = model_microseconds == 0.0 ? 1 + 200000 / model.subjects() : 10;
  double best = 1e300;
  for (int round = 0; round < 5; ++round) {
    const auto begin = steady::now();
    for (int i = 1; i <= model.subjects(); ++i) {
      statsubs::host::setisub(i);
      double f = 0.0;
      for (int k = 0; k < repeats; ++k)
        statsubs::host::fcnxeta(model.random_effects(), eta.data(), f);
    }
    best = std::min(best, seconds_since(begin) / repeats / model.subjects());
  }
  return best;
}

run_times run_once(const varda::population_model& model, const varda::job& peers) {
  varda::engine_host host(model, peers);
  plain_model = statsubs::installed_host().fcnxeta;
  statsubs::installed_host().fcnxeta = slow_model;
  evaluations = 0;
  run_times result;
  const varda::fit_result fitted = varda::fit(host, [&](const varda::run_progress& at) {
    if (at.stage != varda::run_stage::iterations) return;
    result.iterations = at.step;
    result.loop_evaluations = evaluations;
  });
  result.stages = fitted.times;
  result.converged = fitted.converged;
  result.one_evaluation = time_of_an_evaluation(model);
  return result;
}

void print(const varda::population_model& model, const varda::job& peers, const run_times& t) {
  const double points = static_cast<double>(t.loop_evaluations) * peers.size();
  rusage usage{};
  getrusage(RUSAGE_SELF, &usage);
  std::printf("%s, %d subjects, %d observations, %d processes: %s after %d iterations\n",
              model.specification().path.c_str(), model.subjects(), model.data().observations(),
              peers.size(), t.converged ? "converged" : "not converged", t.iterations);
  std::printf("  start               %9.4f s\n", t.stages.start);
  std::printf(
      "  iterations          %9.4f s  %.0f evaluations, %.1f ns each with all that belongs\n",
      t.stages.iterations, points, 1e9 * t.stages.iterations / points);
  std::printf("  likelihood          %9.4f s\n", t.stages.likelihood);
  std::printf("  standard errors     %9.4f s\n", t.stages.standard_errors);
  std::printf("  diagnostics         %9.4f s\n", t.stages.diagnostics);
  std::printf("  a model evaluation  %9.1f ns, share of the iterations %.3f\n",
              1e9 * t.one_evaluation,
              t.one_evaluation * static_cast<double>(t.loop_evaluations) / t.stages.iterations);
  std::printf("  largest memory      %9.1f MB\n", static_cast<double>(usage.ru_maxrss) / 1024.0);
}

}  // namespace

int main(int argc, char** argv) {
  const varda::job peers(&argc, &argv);
  if (argc < 2) return std::fprintf(stderr, "usage: fit_stages MODEL.toml [RUNS [US]]\n"), 2;
  const int runs = argc > 2 ? std::atoi(argv[2]) : 1;
  if (argc > 3) model_microseconds = std::atof(argv[3]);
  statsubs::take_unit(
      statsubs::standard_output_unit, [](void*, const char*, int) {}, nullptr);
  try {
    varda::findings warnings;
    varda::model_specification file = varda::read_model_file(argv[1], warnings);
    varda::dataset data = varda::read_dataset(file.data, warnings);
    const varda::population_model model(std::move(file), std::move(data));
    run_times best;
    for (int run = 0; run < runs; ++run) {
      const run_times now = run_once(model, peers);
      if (run == 0 || now.stages.iterations < best.stages.iterations) best = now;
    }
    if (peers.is_root()) print(model, peers, best);
  } catch (const std::exception& error) {
    std::fprintf(stderr, "%s\n", error.what());
    return 1;
  }
}
