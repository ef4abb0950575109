// SPDX-License-Identifier: Apache-2.0
#include "varda/selftest/selftest.h"

#include <fmt/format.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <exception>
#include <limits>
#include <optional>
#include <utility>

#include "varda/host/engine_host.h"
#include "varda/input/model_file.h"
#include "varda/report/reports.h"
#include "varda/run/fit.h"
#include "varda/selftest/data.h"
#include "varda/selftest/problems.h"
#include "varda/support/progress.h"

namespace varda {

namespace {

// Allowed: of -2 log-likelihood, some times its Monte Carlo error; of an estimate, a share of its
// standard error; of a standard error, a share of itself.
constexpr double allowed_of_minus2ll = 0.02;
constexpr double allowed_of_estimate = 0.1;
constexpr double allowed_of_error = 0.05;

const std::string model_name = "selftest.toml";

population_model model_of(const reference_problem& problem) {
  const file_access files = [&](const std::string& path) -> std::optional<std::string> {
    if (path == model_name) return problem.model;
    return std::string(theophylline_csv());
  };
  findings warnings;
  model_specification file = read_model_file(model_name, warnings, {}, files);
  dataset data = read_dataset(file.data, warnings, files);
  return {std::move(file), std::move(data)};
}

fit_result solve(const reference_problem& problem, const population_model& model, job& peers) {
  engine_host host(model, peers);
  return problem.what == task::fit ? fit(host, no_progress) : evaluate(host, no_progress);
}

// Value and standard error of what a reference calls `name`; NaN where there is none.
std::pair<double, double> figure_called(const std::string& name, const population_model& model,
                                        const fit_result& result) {
  constexpr double none = std::numeric_limits<double>::quiet_NaN();
  const standard_errors& errors = result.errors;
  const auto at = std::find(errors.names.begin(), errors.names.end(), name);
  if (at == errors.names.end() || errors.chosen().empty()) return {none, none};
  const auto k = static_cast<std::size_t>(at - errors.names.begin());
  const double value = errors.theta[k] >= 0
                           ? model.thetas()[static_cast<std::size_t>(errors.theta[k])].natural(
                                 result.theta(errors.theta[k]))
                           : result.omega(errors.omega[k].first, errors.omega[k].second);
  return {value, errors.chosen()[k].se};
}

selftest_case judge(const reference_problem& problem, const population_model& model,
                    const fit_result& result) {
  selftest_case outcome{problem.title, "", {}, 0.0};
  if (!result.converged) outcome.failure = result.reason;
  outcome.figures.push_back(
      {"-2 log-likelihood", problem.minus2ll, result.likelihood.minus2ll, allowed_of_minus2ll});
  for (const exact_estimate& exact : problem.estimates) {
    const auto [value, se] = figure_called(exact.name, model, result);
    outcome.figures.push_back({exact.name, exact.value, value, allowed_of_estimate * exact.se});
    outcome.figures.push_back(
        {"standard error of " + exact.name, exact.se, se, allowed_of_error * exact.se});
  }
  return outcome;
}

selftest_case with_other_threads(job& peers) {
  const reference_problem& problem = reference_problems().front();
  const population_model model = model_of(problem);
  selftest_case outcome{"The same bytes with one thread and with two", "", {}, 0.0};
  std::string first;
  for (const int threads : {1, 2}) {
    peers.use_threads(threads);
    const fit_result result = solve(problem, model, peers);
    const std::string text = whole(json_report(model, result));
    if (first.empty()) first = text;
    if (text != first) outcome.failure = "the results differ";
  }
  return outcome;
}

// An error of one problem is its own.
template <class Work>
selftest_case timed(const std::string& title, Work work) {
  const auto begin = std::chrono::steady_clock::now();
  selftest_case outcome;
  try {
    outcome = work();
  } catch (const std::exception& error) {
    outcome = {title, error.what(), {}, 0.0};
  }
  outcome.seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count();
  return outcome;
}

}  // namespace

bool selftest_figure::passed() const {
  return std::fabs(found - expected) <= allowed;
}

bool selftest_case::passed() const {
  return failure.empty() && std::all_of(figures.begin(), figures.end(),
                                        [](const selftest_figure& f) { return f.passed(); });
}

std::vector<selftest_case> run_selftest(job& peers,
                                        const std::function<void(const std::string&)>& begins) {
  std::vector<selftest_case> outcomes;
  for (const reference_problem& problem : reference_problems()) {
    begins(problem.title);
    outcomes.push_back(timed(problem.title, [&] {
      const population_model model = model_of(problem);
      return judge(problem, model, solve(problem, model, peers));
    }));
  }
  begins("threads");
  outcomes.push_back(timed("threads", [&] { return with_other_threads(peers); }));
  return outcomes;
}

}  // namespace varda
