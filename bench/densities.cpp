// SPDX-License-Identifier: Apache-2.0
//
// What one evaluation of the joint density of theophylline costs: predictions of the closed form,
// the density of the data for every kind of residual error, the prior of the random effects.
// Nanoseconds for one vector of random effects of one subject with eleven observations, computed in
// blocks of 256, of 8, and one at a time.
//
//   VARDA_INSTRUCTIONS=sse2 build/bench/bin/densities
//   build/bench/bin/densities
#include <benchmark/benchmark.h>

#include <random>
#include <string>

#include "varda/input/model_file.h"
#include "varda/model/density.h"

namespace {

using namespace varda;

population_model theophylline(const residual_error& error, double limit) {
  findings warnings;
  model_specification file =
      read_model_file(SOURCE_FOLDER "/examples/theophylline/theophylline.toml", warnings);
  file.endpoints.front().residual = error;
  dataset data = read_dataset(file.data, warnings);
  for (subject& who : data.subjects)
    for (observation& o : who.observations) {
      if (error.kind != error_kind::additive && o.value < 0.1) o.value = 0.1;
      if (o.value >= limit) continue;
      o.value = limit;
      o.censored = censoring::left;
    }
  return {std::move(file), std::move(data)};
}

void evaluate(benchmark::State& timing, const residual_error& error, double limit,
              Eigen::Index individuals) {
  const population_model model = theophylline(error, limit);
  const density joint(model);
  density_workspace scratch(model);
  const random_effect_density prior(model.start_omega());
  const Eigen::VectorXd theta = model.start_theta();
  std::mt19937_64 engine(1);
  std::normal_distribution<double> normal;
  const Eigen::Index effects = model.random_effects();
  const Eigen::MatrixXd eta =
      Eigen::MatrixXd::NullaryExpr(effects, 256, [&] { return 0.4 * normal(engine); });
  Eigen::VectorXd means(effects);
  Eigen::MatrixXd phi, f;
  Eigen::VectorXd objective, squares, of_effects;
  double sum = 0.0;
  for (auto _ : timing)
    for (int i = 0; i < model.subjects(); ++i) {
      model.means(i, theta.data(), means.data());
      for (Eigen::Index first = 0; first < eta.cols(); first += individuals) {
        phi = eta.middleCols(first, individuals).colwise() + means;
        joint.predict(i, theta.data(), phi, f, scratch);
        joint.of_data(i, theta.data(), f, objective, squares);
        prior.negative_logs(eta.middleCols(first, individuals), of_effects);
        sum += (objective + of_effects).sum();
      }
    }
  benchmark::DoNotOptimize(sum);
  timing.counters["evaluation"] = benchmark::Counter(
      static_cast<double>(eta.cols() * model.subjects()),
      benchmark::Counter::kIsIterationInvariantRate | benchmark::Counter::kInvert);
}

}  // namespace

int main(int argc, char** argv) {
  const struct {
    std::string name;
    residual_error error;
    double limit;
  } cases[] = {{"additive", {error_kind::additive, 0.7, 0.0, false, false}, -1e300},
               {"proportional", {error_kind::proportional, 0.0, 0.2, false, false}, -1e300},
               {"combined", {error_kind::combined, 0.3, 0.15, false, false}, -1e300},
               {"log-normal", {error_kind::log_normal, 0.2, 0.0, false, false}, -1e300},
               {"additive, censored", {error_kind::additive, 0.7, 0.0, false, false}, 3.0}};
  for (const auto& c : cases)
    for (const int individuals : {256, 8, 1})
      benchmark::RegisterBenchmark((c.name + "/" + std::to_string(individuals)).c_str(),
                                   [&c, individuals](benchmark::State& timing) {
                                     evaluate(timing, c.error, c.limit, individuals);
                                   });
  benchmark::Initialize(&argc, argv);
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
}
