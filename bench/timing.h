// SPDX-License-Identifier: Apache-2.0
//
// Registration of timings. Every timing is named routine/case/library, so that the table of ratios
// can put together what belongs together, and counts its items: time per item is what compares.
#pragma once

#include <benchmark/benchmark.h>

#include <cstddef>
#include <string>
#include <utility>
#include <vector>

#include "bench/arguments.h"

namespace bench {

// Times `pass`, which does `items` items of work at a call.
template <class Pass>
void time_pass(const std::string& name, int items, Pass pass) {
  benchmark::RegisterBenchmark(name.c_str(), [=](benchmark::State& state) mutable {
    for (auto _ : state) pass();
    state.SetItemsProcessed(state.iterations() * items);
  });
}

// Times a function of one argument that returns a double, over all arguments in turn.
template <class Function>
void time_function(const std::string& name, std::vector<double> arguments, Function function) {
  const int count = static_cast<int>(arguments.size());
  time_pass(name, count, [=, at = std::move(arguments)]() mutable {
    for (const double argument : at) benchmark::DoNotOptimize(function(argument));
  });
}

// Times a point generator of `dimension` dimensions; next(double*) gives a point. start() is called
// before, and again as soon as `points` points are out.
template <class Start, class Next>
void time_points(const std::string& name, int dimension, Start start, Next next) {
  constexpr int points = 4096;
  benchmark::RegisterBenchmark(name.c_str(), [=](benchmark::State& state) mutable {
    start();
    double point[40];
    int left = 1 << 25;
    for (auto _ : state) {
      for (int j = 0; j < points; ++j) {
        next(point);
        benchmark::DoNotOptimize(point[dimension - 1]);
        benchmark::ClobberMemory();
      }
      left -= points;
      if (left < points) {
        state.PauseTiming();
        start();
        left = 1 << 25;
        state.ResumeTiming();
      }
    }
    state.SetItemsProcessed(state.iterations() * points);
  });
}

// Times an index sort: sort(n, data, index) fills index. Short vectors take turns, lest the branch
// predictor learn one by heart.
template <class Sort>
void time_sort(const std::string& library, Sort sort) {
  for (const int n : lengths) {
    const int vectors = n < 100000 ? 200 : 1;
    time_pass("qsortr8/" + std::to_string(n) + "/" + library, n * vectors,
              [=, data = uniform(n * vectors, 0.0, 1.0),
               index = std::vector<int>(static_cast<std::size_t>(n))]() mutable {
                for (int v = 0; v < vectors; ++v) {
                  sort(n, data.data() + static_cast<std::ptrdiff_t>(v) * n, index.data());
                  benchmark::DoNotOptimize(index.data());
                  benchmark::ClobberMemory();
                }
              });
  }
}

// "4" for 4.0, "7.3" for 7.3.
inline std::string label(double value) {
  std::string text = std::to_string(value);
  text.erase(text.find_last_not_of('0') + 1);
  if (text.back() == '.') text.pop_back();
  return text;
}

// The cases that the distribution functions and their peers share. Each takes a function object.
template <class Function>
void time_normal_quantile(const std::string& library, Function f) {
  time_function("dnorminv/uniform/" + library, uniform(argument_count, 0.0, 1.0), f);
}

template <class Function>
void time_normal_distribution(const std::string& library, Function f) {
  time_function("cumnor/normal/" + library, normal(argument_count), f);
  time_function("cumnor/-6..6/" + library, uniform(argument_count, -6.0, 6.0), f);
}

template <class Function>
void time_log_gamma(const std::string& library, Function f) {
  time_function("gamln/0..2/" + library, uniform(argument_count, 0.0, 2.0), f);
  time_function("gamln/2..10/" + library, uniform(argument_count, 2.0, 10.0), f);
  time_function("gamln/0..20/" + library, uniform(argument_count, 0.0, 20.0), f);
  time_function("gamln/10..100/" + library, uniform(argument_count, 10.0, 100.0), f);
}

// f(df) gives the function of x; the arguments follow the distribution itself.
template <class Family>
void time_chi_square(const std::string& library, Family f) {
  for (const double df : freedoms)
    time_function("cdfchi 1/df " + label(df) + "/" + library, chi_square(argument_count, df),
                  f(df));
}

// f(df) gives the function of p.
template <class Family>
void time_chi_square_quantile(const std::string& library, Family f) {
  for (const double df : freedoms)
    time_function("cdfchi 2/df " + label(df) + "/" + library, uniform(argument_count, 0.0, 1.0),
                  f(df));
}

// Every library's part of the timings; those of libraries that are not installed do nothing.
void register_distributions();
void register_sequences();
void register_sorting();
void register_boost();
void register_gsl();
void register_rmath();

}  // namespace bench
