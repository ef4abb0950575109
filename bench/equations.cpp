// SPDX-License-Identifier: Apache-2.0
//
// What a model written as text costs beside the same model compiled: predictions of the
// theophylline example's subjects, every kind in the same rounds. A right-hand side compiled into
// this program and taken through the same solver tells the cost of the formulas from that of the
// steps.
#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <functional>
#include <vector>

#include "varda/input/model_file.h"
#include "varda/model/equations/ode_solver.h"
#include "varda/model/population.h"
#include "varda/model/specification.h"

namespace {

using varda::population_model;

population_model theophylline(const char* name, bool stiff = false) {
  varda::findings warnings;
  varda::model_specification file = varda::read_model_file(
      std::string(SOURCE_FOLDER "/examples/theophylline/") + name + ".toml", warnings);
  file.structure.equations.solver.stiff = stiff;
  varda::dataset data = varda::read_dataset(file.data, warnings);
  return {std::move(file), std::move(data)};
}

// A sample's parameters, spread about the estimates.
std::vector<double> parameters(int sample) {
  const double x = sample;
  return {1.6 * std::exp(0.6 * std::sin(1.7 * x)), 2.75 * std::exp(0.3 * std::sin(2.3 * x)),
          31.6 * std::exp(0.2 * std::sin(3.1 * x))};
}

double predict_all(const population_model& model, int samples) {
  double sum = 0.0;
  std::vector<double> f(100);
  const auto scratch = model.structure().make_workspace();
  for (int s = 0; s < samples; ++s) {
    const std::vector<double> p = parameters(s);
    for (int i = 0; i < model.subjects(); ++i) {
      const auto& who = model.data().subjects[static_cast<std::size_t>(i)];
      model.structure().predict(who, {p.data(), p.size(), 1, 1, 1},
                                {f.data(), who.observations.size(), 1}, *scratch);
      sum += f[1];
    }
  }
  return sum;
}

class compiled_system : public varda::ode_system {
 public:
  double ka = 0.0;
  double k = 0.0;
  std::size_t size() const override { return 2; }
  void derivative(double, const double* x, double* dxdt) override {
    dxdt[0] = -ka * x[0];
    dxdt[1] = ka * x[0] - k * x[1];
  }
  bool depends_on_time() const override { return false; }
};

double solve_compiled(const population_model& model, int samples) {
  static compiled_system system;
  static const auto solver = varda::make_ode_solver(system, {});
  double sum = 0.0;
  for (int s = 0; s < samples; ++s) {
    const std::vector<double> p = parameters(s);
    system.ka = p[0];
    system.k = p[1] / p[2];
    for (const varda::subject& who : model.data().subjects) {
      double x[] = {who.doses.front().amount, 0.0};
      double t = 0.0;
      solver->set_scale(x[0]);
      solver->restart();
      for (std::size_t k = 0; k < who.observations.size(); ++k) {
        solver->advance(t, who.observations[k].time, x);
        t = who.observations[k].time;
        if (k == 1) sum += x[1] / p[2];
      }
    }
  }
  return sum;
}

}  // namespace

int main() {
  const population_model closed = theophylline("theophylline");
  const population_model formula = theophylline("formula");
  const population_model equations = theophylline("equations");
  const population_model stiff = theophylline("equations", true);

  struct entry {
    const char* name;
    int samples;
    std::function<double(int)> run;
    std::vector<double> times{};  // of a prediction of one observation, in ns
    double sum = 0.0;
  };
  std::vector<entry> entries = {
      {"closed form, compiled", 20000, [&](int n) { return predict_all(closed, n); }},
      {"formula", 2000, [&](int n) { return predict_all(formula, n); }},
      {"equations, compiled", 200, [&](int n) { return solve_compiled(closed, n); }},
      {"equations", 100, [&](int n) { return predict_all(equations, n); }},
      {"equations, stiff method", 20, [&](int n) { return predict_all(stiff, n); }},
  };
  for (int round = 0; round < 9; ++round)
    for (entry& e : entries) {
      const auto start = std::chrono::steady_clock::now();
      e.sum = e.run(e.samples) / e.samples;
      const std::chrono::duration<double, std::nano> took =
          std::chrono::steady_clock::now() - start;
      e.times.push_back(took.count() / e.samples / closed.data().observations());
    }

  std::printf("%-26s %14s %8s %8s\n", "prediction by", "ns/observation", "ratio", "to");
  const auto median = [](entry& e) {
    std::nth_element(e.times.begin(), e.times.begin() + 4, e.times.end());
    return e.times[4];
  };
  for (std::size_t k = 0; k < entries.size(); ++k) {
    entry& base = entries[k < 2 ? 0 : 2];
    std::printf("%-26s %14.0f %8.1f %s\n", entries[k].name, median(entries[k]),
                median(entries[k]) / median(base), base.name);
  }
  return 0;
}
