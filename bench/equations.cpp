// SPDX-License-Identifier: Apache-2.0
//
// Differential equations for many individuals of a subject: nanoseconds for one prediction of one
// individual at default tolerance, on every instruction set of this processor, side by side with
// the same systems compiled into this program and taken one by one through Boost's odeint
// (Dormand-Prince 5(4), Rosenbrock 4(3) for stiff ones). Counters tell the cost of an observation
// and the largest error of a prediction in units of the subject's largest, against tolerance 1e-11.
#include <benchmark/benchmark.h>

#include <boost/numeric/odeint.hpp>
#include <cmath>
#include <functional>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "varda/model/equations/equation_run.h"

namespace {

using namespace varda;
namespace odeint = boost::numeric::odeint;

using state = std::vector<double>;
using compiled_rhs = std::function<void(const double* p, const state& x, state& dxdt)>;

struct model {
  std::string name;
  equation_text text{};
  std::vector<double> typical;
  std::vector<double> times;
  double dose = 0.0;
  std::vector<std::size_t> read{};  // of the output: state over parameter
  compiled_rhs rhs{};
  std::vector<std::pair<std::size_t, std::function<double(const double*)>>> initial{};
};

constexpr std::size_t individuals = 256;

model theophylline() {
  model m{.name = "theophylline",
          .typical = {1.6, 2.8, 31.0},
          .times = {0.27, 0.58, 1.02, 2.02, 3.62, 5.08, 7.07, 9.0, 12.05, 24.15, 25.0},
          .dose = 320.0,
          .read = {1, 2}};
  m.text.parameters = {"ka", "CL", "V"};
  m.text.definitions = {{"k", "CL / V"}};
  m.text.derivatives = {{"depot", "-ka * depot"}, {"central", "ka * depot - k * central"}};
  m.text.outputs = {{"c", "central / V"}};
  m.rhs = [](const double* p, const state& x, state& d) {
    d[0] = -p[0] * x[0];
    d[1] = p[0] * x[0] - p[1] / p[2] * x[1];
  };
  return m;
}

std::vector<double> many_times() {
  return {0.25, 0.5, 0.75, 1, 1.5, 2, 3, 4, 5, 6, 8, 10, 12, 14, 16, 18, 20, 22, 24};
}

model michaelis_menten_bolus() {
  model m{.name = "Michaelis-Menten bolus",
          .typical = {10.0, 1.0, 10.0},
          .times = many_times(),
          .dose = 100.0,
          .read = {0, 2}};
  m.text.parameters = {"VM", "KM", "V"};
  m.text.derivatives = {{"central", "-VM * central / (KM * V + central)"}};
  m.text.outputs = {{"c", "central / V"}};
  m.rhs = [](const double* p, const state& x, state& d) {
    d[0] = -p[0] * x[0] / (p[1] * p[2] + x[0]);
  };
  return m;
}

model michaelis_menten_oral() {
  model m{.name = "Michaelis-Menten oral",
          .typical = {1.2, 10.0, 1.0, 10.0, 3.0, 20.0},
          .times = many_times(),
          .dose = 100.0,
          .read = {1, 3}};
  m.text.parameters = {"ka", "VM", "KM", "V", "Q", "V2"};
  m.text.definitions = {{"c1", "central / V"}, {"c2", "peripheral / V2"}};
  m.text.derivatives = {{"depot", "-ka * depot"},
                        {"central", "ka * depot - VM * c1 / (KM + c1) - Q * (c1 - c2)"},
                        {"peripheral", "Q * (c1 - c2)"}};
  m.text.outputs = {{"c", "c1"}};
  m.rhs = [](const double* p, const state& x, state& d) {
    const double c1 = x[1] / p[3];
    const double c2 = x[2] / p[5];
    const double exchange = p[4] * (c1 - c2);
    d[0] = -p[0] * x[0];
    d[1] = p[0] * x[0] - p[1] * c1 / (p[2] + c1) - exchange;
    d[2] = exchange;
  };
  return m;
}

model target_mediated() {
  model m{.name = "target-mediated",
          .typical = {0.0245, 0.00592, 0.0041, 0.091, 0.001, 0.003, 0.11, 12.0, 3.0},
          .times = {0.5, 2, 6, 12, 24, 48, 96, 168, 240, 336, 504, 672},
          .dose = 300.0,
          .read = {0, 8}};
  m.text.parameters = {"kel", "kpt", "ktp", "kon", "koff", "kint", "ksyn", "R0", "V"};
  m.text.definitions = {
      {"c", "ligand / V"}, {"kdeg", "ksyn / R0"}, {"binding", "kon * c * target - koff * complex"}};
  m.text.derivatives = {{"ligand", "-(kel + kpt) * ligand + ktp * tissue - binding * V"},
                        {"tissue", "kpt * ligand - ktp * tissue"},
                        {"target", "ksyn - kdeg * target - binding"},
                        {"complex", "binding - kint * complex"}};
  m.text.initial = {{"target", "R0"}};
  m.text.outputs = {{"free", "c"}};
  m.rhs = [](const double* p, const state& x, state& d) {
    const double binding = p[3] * x[0] / p[8] * x[2] - p[4] * x[3];
    d[0] = -(p[0] + p[1]) * x[0] + p[2] * x[1] - binding * p[8];
    d[1] = p[1] * x[0] - p[2] * x[1];
    d[2] = p[6] - p[6] / p[7] * x[2] - binding;
    d[3] = binding - p[5] * x[3];
  };
  m.initial = {{2, [](const double* p) { return p[7]; }}};
  return m;
}

model myelosuppression() {
  model m{.name = "myelosuppression",
          .typical = {37.0, 9.0, 5.0, 8.0, 88.7, 5.05, 0.161, 8.6},
          .times = {24, 72, 120, 168, 216, 264, 336, 408, 504},
          .dose = 124.0,
          .read = {}};
  m.text.parameters = {"CL", "V", "Q", "V2", "MTT", "CIRC0", "gamma", "slope"};
  m.text.definitions = {
      {"ktr", "4 / MTT"}, {"effect", "slope * central / V"}, {"feedback", "(CIRC0 / circ)^gamma"}};
  m.text.derivatives = {{"central", "-(CL + Q) / V * central + Q / V2 * peripheral"},
                        {"peripheral", "Q / V * central - Q / V2 * peripheral"},
                        {"prol", "ktr * prol * ((1 - effect) * feedback - 1)"},
                        {"t1", "ktr * (prol - t1)"},
                        {"t2", "ktr * (t1 - t2)"},
                        {"t3", "ktr * (t2 - t3)"},
                        {"circ", "ktr * (t3 - circ)"}};
  for (const char* name : {"prol", "t1", "t2", "t3", "circ"})
    m.text.initial.push_back({name, "CIRC0"});
  m.text.outputs = {{"count", "circ"}};
  m.rhs = [](const double* p, const state& x, state& d) {
    const double ktr = 4.0 / p[4];
    d[0] = -(p[0] + p[2]) / p[1] * x[0] + p[2] / p[3] * x[1];
    d[1] = p[2] / p[1] * x[0] - p[2] / p[3] * x[1];
    d[2] = ktr * x[2] * ((1.0 - p[7] * x[0] / p[1]) * std::pow(p[5] / x[6], p[6]) - 1.0);
    for (std::size_t k = 3; k < 7; ++k) d[k] = ktr * (x[k - 1] - x[k]);
  };
  for (std::size_t k = 2; k < 7; ++k)
    m.initial.emplace_back(k, [](const double* p) { return p[5]; });
  return m;
}

subject subject_of(const model& m) {
  subject who;
  who.segments.resize(1);
  who.doses.push_back({.amount = m.dose});
  who.timeline.push_back({event_kind::dose, 0, 0.0});
  for (std::size_t i = 0; i < m.times.size(); ++i) {
    who.observations.push_back({.time = m.times[i]});
    who.timeline.push_back({event_kind::observation, static_cast<int>(i), m.times[i]});
  }
  return who;
}

// Log-normal, 30 %: parameter k of individual j at [k * individuals + j].
std::vector<double> parameters_of(const model& m) {
  std::mt19937_64 engine(20240607);
  std::normal_distribution<double> normal;
  std::vector<double> p(m.typical.size() * individuals);
  for (std::size_t k = 0; k < m.typical.size(); ++k)
    for (std::size_t j = 0; j < individuals; ++j)
      p[k * individuals + j] = m.typical[k] * std::exp(0.3 * normal(engine));
  return p;
}

struct lanes {
  lanes(const model& m, const solver_settings& settings, const lane_kernel& kernel,
        std::size_t block)
      : program(m.text),
        who(subject_of(m)),
        p(parameters_of(m)),
        f(m.times.size() * individuals),
        run(program, settings, kernel, block) {}
  void predict() {
    run.predict(who, {p.data(), program.parameters().size(), 1, individuals, individuals}, {},
                {f.data(), who.observations.size(), individuals});
  }
  formula_program program;
  subject who;
  std::vector<double> p;
  std::vector<double> f;
  equation_run run;
};

double largest_error(const model& m, const std::vector<double>& f) {
  lanes exact(
      m,
      {.method = m.name == "target-mediated" ? solver_method::stiff : solver_method::non_stiff,
       .relative = 1e-11,
       .absolute = 1e-15},
      best_lane_kernel(), equation_run::usual_block);
  exact.predict();
  double worst = 0.0;
  for (std::size_t j = 0; j < individuals; ++j) {
    double size = 0.0;
    for (std::size_t i = 0; i < m.times.size(); ++i)
      size = std::max(size, std::fabs(exact.f[i * individuals + j]));
    for (std::size_t i = 0; i < m.times.size(); ++i) {
      const std::size_t at = i * individuals + j;
      const double error = std::fabs(f[at] - exact.f[at]) / size;
      worst = error <= worst ? worst : error;  // NaN stays
    }
  }
  return worst;
}

void report(benchmark::State& timing, const model& m, const std::vector<double>& f) {
  const double observations = static_cast<double>(individuals * m.times.size());
  timing.counters["observation"] = benchmark::Counter(
      observations, benchmark::Counter::kIsIterationInvariantRate | benchmark::Counter::kInvert);
  timing.counters["error"] = largest_error(m, f);
}

void add_lanes(const model& m, const char* how, solver_method method) {
  for (const char* name : {"sse2", "avx2"}) {
    const lane_kernel* kernel = lane_kernel_named(name);
    if (kernel == nullptr) continue;
    benchmark::RegisterBenchmark((m.name + ", " + how + ", " + name).c_str(), [=](benchmark::State&
                                                                                      timing) {
      lanes all(m, {.method = method}, *kernel, equation_run::usual_block);
      for (auto _ : timing) all.predict();
      report(timing, m, all.f);
    })->Unit(benchmark::kMillisecond);
  }
}

void add_odeint(const model& m, double relative) {
  benchmark::RegisterBenchmark((m.name + ", compiled, odeint").c_str(), [=](benchmark::State&
                                                                                timing) {
    const std::vector<double> all = parameters_of(m);
    std::vector<double> f(m.times.size() * individuals);
    for (auto _ : timing)
      for (std::size_t j = 0; j < individuals; ++j) {
        std::vector<double> p(m.typical.size());
        for (std::size_t k = 0; k < p.size(); ++k) p[k] = all[k * individuals + j];
        state x(m.text.derivatives.size(), 0.0);
        x[0] = m.dose;
        for (const auto& [s, value] : m.initial) x[s] = value(p.data());
        const auto rhs = [&](const state& at, state& d, double) { m.rhs(p.data(), at, d); };
        auto stepper = odeint::make_controlled(relative * 1e-4 * m.dose, relative,
                                               odeint::runge_kutta_dopri5<state>());
        double t = 0.0;
        double step = 0.01;
        for (std::size_t i = 0; i < m.times.size(); ++i) {
          while (t < m.times[i]) {
            const double left = m.times[i] - t;
            double h = std::min(step, left);
            const bool cut = h < step;
            if (stepper.try_step(rhs, x, t, h) == odeint::success && cut)
              step = std::max(step, h);
            else
              step = h;
            if (m.times[i] - t < 1e-12 * m.times[i]) t = m.times[i];
          }
          f[i * individuals + j] = m.read.empty() ? x.back() : x[m.read[0]] / p[m.read[1]];
        }
      }
    report(timing, m, f);
  })->Unit(benchmark::kMillisecond);
}

}  // namespace

int main(int argc, char** argv) {
  const model t = theophylline();
  add_lanes(t, "exact", solver_method::automatic);
  add_lanes(t, "solved", solver_method::non_stiff);
  add_odeint(t, 1e-6);
  for (const model& m : {michaelis_menten_bolus(), michaelis_menten_oral()}) {
    add_lanes(m, "solved", solver_method::automatic);
    add_odeint(m, 1e-6);
  }
  for (const model& m : {target_mediated(), myelosuppression()}) {
    add_lanes(m, "automatic", solver_method::automatic);
    add_lanes(m, "stiff", solver_method::stiff);
    if (m.name == "myelosuppression") add_odeint(m, 1e-6);
  }
  benchmark::Initialize(&argc, argv);
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  return 0;
}
