// SPDX-License-Identifier: Apache-2.0
//
// What the predictions of the compartment models cost beside the exponentials that they cannot do
// without: one for each rate and each interval between events. Every evaluation has parameters of
// its own, as in an estimation. The last column is the ratio of the two, measured in turns so that
// a busy machine slows both.
//
//   build/bench/bin/closed_forms
#include <benchmark/benchmark.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <string>
#include <vector>

#include "varda/model/structural_model.h"

namespace {

using varda::append;

constexpr std::size_t sets = 64;

struct history {
  varda::subject who;
  std::vector<double> intervals;  // those that differ from the one before
};

void note_interval(history& h, double from, double to) {
  const double t = to - from;
  if (t > 0.0 && (h.intervals.empty() || t != h.intervals.back())) h.intervals.push_back(t);
}

// One dose and eleven observations at the times of a classic absorption study.
history single_dose() {
  history h;
  h.who.segments.resize(1);
  append(h.who, varda::dose{.amount = 320.0});
  double last = 0.0;
  for (const double t : {0.0, 0.25, 0.57, 1.12, 2.02, 3.82, 5.1, 7.03, 9.05, 12.12, 24.37}) {
    append(h.who, varda::observation{.time = t});
    note_interval(h, last, t);
    last = t;
  }
  return h;
}

// A week of a dose every twelve hours, each observed four times.
history repeated_doses() {
  history h;
  h.who.segments.resize(1);
  double last = 0.0;
  for (int n = 0; n < 14; ++n) {
    const double begin = 12.0 * n;
    note_interval(h, last, begin);
    append(h.who, varda::dose{.time = begin, .amount = 320.0});
    last = begin;
    for (const double after : {0.6, 2.1, 5.3, 11.2}) {
      append(h.who, varda::observation{.time = begin + after});
      note_interval(h, last, begin + after);
      last = begin + after;
    }
  }
  return h;
}

struct problem {
  std::string structure;
  int rates = 0;  // decay rates, that of the depot included
  std::vector<double> typical;
};

const std::vector<problem> problems = {
    {"one-compartment bolus", 1, {2.75, 31.6}},
    {"one-compartment oral", 2, {1.58, 2.75, 31.6}},
    {"two-compartment bolus", 2, {2.75, 20.0, 4.0, 40.0}},
    {"two-compartment oral", 3, {1.58, 2.75, 20.0, 4.0, 40.0}},
    {"three-compartment bolus", 3, {2.75, 20.0, 4.0, 40.0, 1.0, 60.0}},
    {"three-compartment oral", 4, {1.58, 2.75, 20.0, 4.0, 40.0, 1.0, 60.0}},
};

// The typical parameters, each set a little apart.
std::vector<double> parameter_sets(const problem& p) {
  std::vector<double> all;
  for (std::size_t s = 0; s < sets; ++s)
    for (std::size_t k = 0; k < p.typical.size(); ++k)
      all.push_back(p.typical[k] * (0.8 + 0.4 * static_cast<double>((s * 7 + k * 13) % sets) /
                                              static_cast<double>(sets)));
  return all;
}

double seconds_since(std::chrono::steady_clock::time_point begin) {
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count();
}

void compare(benchmark::State& state, const problem& p, const history& h) {
  const auto model = varda::make_structural_model({p.structure});
  const auto scratch = model->make_workspace();
  const std::vector<double> all = parameter_sets(p);
  std::vector<double> f(h.who.observations.size());
  std::vector<double> powers(h.intervals.size() * static_cast<std::size_t>(p.rates));
  // The other processes of a machine only ever add: the fastest round of each counts.
  double predicting = 1e300, raising = 1e300;
  for (auto _ : state) {
    auto begin = std::chrono::steady_clock::now();
    for (std::size_t s = 0; s < sets; ++s) {
      model->predict(h.who, {&all[s * p.typical.size()], p.typical.size(), 1, 1, 1},
                     {f.data(), f.size(), 1}, *scratch);
      benchmark::DoNotOptimize(f.data());
      benchmark::ClobberMemory();
    }
    predicting = std::min(predicting, seconds_since(begin));
    begin = std::chrono::steady_clock::now();
    for (std::size_t s = 0; s < sets; ++s) {
      std::size_t n = 0;
      for (int r = 0; r < p.rates; ++r) {
        const double rate = all[s * p.typical.size()] * (0.05 + 0.3 * r);
        for (const double t : h.intervals) powers[n++] = std::exp(-rate * t);
      }
      benchmark::DoNotOptimize(powers.data());
      benchmark::ClobberMemory();
    }
    raising = std::min(raising, seconds_since(begin));
  }
  state.counters["predict_ns"] = 1e9 * predicting / sets;
  state.counters["exponentials_ns"] = 1e9 * raising / sets;
  state.counters["ratio"] = predicting / raising;
}

}  // namespace

int main(int argc, char** argv) {
  const history one = single_dose();
  const history many = repeated_doses();
  for (const problem& p : problems) {
    benchmark::RegisterBenchmark((p.structure + "/one dose").c_str(),
                                 [&](benchmark::State& state) { compare(state, p, one); });
    benchmark::RegisterBenchmark((p.structure + "/repeated doses").c_str(),
                                 [&](benchmark::State& state) { compare(state, p, many); });
  }
  benchmark::Initialize(&argc, argv);
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
}
