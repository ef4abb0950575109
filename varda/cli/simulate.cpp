// SPDX-License-Identifier: Apache-2.0
#include "varda/cli/simulate.h"

#include <fmt/format.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <limits>

#include "varda/cli/at_root.h"
#include "varda/cli/model_source.h"
#include "varda/cli/table_sink.h"
#include "varda/data/csv.h"
#include "varda/report/simulation_tables.h"
#include "varda/simulation/design.h"
#include "varda/simulation/predict.h"
#include "varda/simulation/uncertainty.h"
#include "varda/simulation/vpc.h"
#include "varda/support/text.h"

namespace varda {

namespace {

bad_input bad_option(const std::string& option, const std::string& text,
                     const std::string& remedy) {
  return bad_input({.code = "E-RUN-OPTION",
                    .message = fmt::format("'{}' is no value of {}", text, option),
                    .remedy = remedy});
}

// Numbers with commas between them, ascending.
std::vector<double> ascending_numbers(const std::string& option, const std::string& text) {
  std::vector<double> numbers;
  for (std::size_t begin = 0; begin <= text.size();) {
    const std::size_t end = std::min(text.find(',', begin), text.size());
    const std::optional<double> value = to_number(text.substr(begin, end - begin));
    if (!value || !std::isfinite(*value) || (!numbers.empty() && *value <= numbers.back()))
      throw bad_option(option, text, "write ascending numbers with commas between them: 0,1,2.5");
    numbers.push_back(*value);
    begin = end + 1;
  }
  return numbers;
}

// "0:24:0.5", both ends included, or a list.
std::vector<double> grid_of(const std::string& text) {
  const std::size_t first = text.find(':');
  if (first == std::string::npos) return ascending_numbers("--times", text);
  const std::size_t second = std::min(text.find(':', first + 1), text.size());
  const auto number = [&](std::size_t begin, std::size_t end) {
    return to_number(text.substr(begin, end - begin))
        .value_or(std::numeric_limits<double>::quiet_NaN());
  };
  const double from = number(0, first);
  const double to = number(first + 1, second);
  const double step = number(std::min(second + 1, text.size()), text.size());
  constexpr double most = 1e6;
  if (!(step > 0.0) || !(to >= from) || !((to - from) / step <= most))
    throw bad_option("--times", text, "write FROM:TO:STEP, say 0:24:0.5, or a list");
  std::vector<double> times;
  // Multiples of the step and not sums, so that no rounding adds up.
  const auto count = static_cast<int>(std::floor((to - from) / step * (1.0 + 1e-12)));
  for (int k = 0; k <= count; ++k) times.push_back(from + k * step);
  return times;
}

int seed_of(const source_request& request, const model_source& source) {
  return request.seed.value_or(source.specification().estimation.seed);
}

// One set of parameters for all replicates, or with their uncertainty one for each.
std::vector<drawn_parameters> parameters_of(const model_source& source,
                                            const population_model& model, int replicates,
                                            bool uncertainty, int seed) {
  const drawn_parameters at = source.parameters(model);
  if (!uncertainty) return {at};
  if (!source.fit())
    throw bad_input({.code = "E-SIM-UNCERTAINTY",
                     .message = "a model file has no estimates, hence no uncertainty",
                     .remedy = "give the folder of a fit, or omit --uncertainty",
                     .file = model.specification().path});
  int again = 0;
  auto drawn = draw_parameters(model, at, source.fit()->covariance_names, source.fit()->covariance,
                               replicates, seed, again);
  if (again > 0)
    std::fputs(fmt::format("{} of the parameters repeated: omega was not positive definite\n",
                           count_of(again, "draw"))
                   .c_str(),
               stderr);
  return drawn;
}

// A data set without the values of some endpoint would be no data set.
void refuse_unknown_laws(const population_model& model) {
  for (const endpoint& of : model.specification().endpoints)
    if (!of.is_normal() && !can_be_simulated(of.outcome))
      throw bad_input({.code = "E-SIM-ENDPOINT",
                       .message = fmt::format("values of {} cannot be simulated: a log-likelihood "
                                              "does not tell how they come about",
                                              of.name),
                       .remedy = "use another kind of endpoint where one fits",
                       .file = model.specification().path});
}

void count_failures(const population_model& model,
                    const std::vector<simulated_subject>& simulated) {
  Eigen::Index failed = 0;
  for (std::size_t i = 0; i < simulated.size(); ++i) {
    const auto& observed = model.data().subjects[i].observations;
    for (std::size_t j = 0; j < observed.size(); ++j) {
      const endpoint& of =
          model.specification().endpoints[static_cast<std::size_t>(observed[j].endpoint)];
      if (of.is_normal() || has_row_values(of.outcome))
        failed += simulated[i].values.row(static_cast<Eigen::Index>(j)).array().isNaN().count();
    }
    for (const std::vector<event_row>& happened : simulated[i].events)
      failed += happened.empty() ? 1 : 0;
  }
  if (failed > 0)
    std::fputs(fmt::format("{} could not be simulated: the model has no finite prediction there\n",
                           count_of(failed, "value"))
                   .c_str(),
               stderr);
}

// A model with individuals drawn from it, for the sets of parameters that a request asks for.
struct drawn_population {
  template <class Request>
  drawn_population(const Request& request, const data_wish& wish)
      : source(request.from.path, wish), model(source.specification(), source.data()) {
    refuse_unknown_laws(model);
    const int seed = seed_of(request.from, source);
    simulated =
        simulate(model, parameters_of(source, model, request.replicates, request.uncertainty, seed),
                 {.replicates = request.replicates, .seed = seed, .threads = request.from.threads});
    count_failures(model, simulated);
  }

  model_source source;
  population_model model;
  std::vector<simulated_subject> simulated;
};

}  // namespace

exit_status simulate_data(const simulate_request& request, const job& peers) {
  return at_root(peers, [&] {
    const drawn_population drawn(
        request, {.file = request.from.data, .values_needed = request.from.data.empty()});
    table_sink out(request.from.output);
    out.write(simulation_header(drawn.model));
    for (int r = 0; r < request.replicates; ++r)
      out.write(simulation_rows(drawn.model, drawn.simulated, r));
    out.finish();
  });
}

exit_status predict_data(const predict_request& request, const job& peers) {
  return at_root(peers, [&] {
    data_wish wish{.file = request.from.data, .values_needed = false, .missing_counts = true};
    std::vector<double> grid;
    if (!request.times.empty()) {
      grid = grid_of(request.times);
      wish.doses_until = grid.back();
    }
    const model_source source(request.from.path, wish);
    const population_model given(source.specification(), observed_part(source.data()));
    const auto endpoints = static_cast<int>(source.specification().endpoints.size());
    const population_model wanted(
        source.specification(),
        grid.empty() ? source.data() : on_grid(source.data(), grid, endpoints));
    std::vector<conditional_moments> moments;
    if (source.fit() && source.has_own_data())
      for (const stored_subject& s : source.fit()->by_subject)
        moments.push_back({s.eta_mean, s.eta_covariance});
    const auto predicted = predict(given, wanted, source.parameters(given), moments,
                                   {.samples = request.samples,
                                    .seed = seed_of(request.from, source),
                                    .threads = request.from.threads});
    table_sink out(request.from.output);
    out.write(predictions_csv(wanted, predicted));
    out.finish();
  });
}

exit_status check_visually(const vpc_request& request, const job& peers) {
  return at_root(peers, [&] {
    vpc_plan plan;
    plan.prediction_corrected = request.prediction_corrected;
    plan.time_after_dose = request.time_after_dose;
    plan.stratify = request.stratify;
    if (!request.bins.empty()) {
      const std::vector<double> numbers = ascending_numbers("--bins", request.bins);
      if (numbers.size() > 1)
        plan.edges = numbers;
      else if (numbers.front() >= 1.0 && numbers.front() == std::floor(numbers.front()))
        plan.bins = static_cast<int>(numbers.front());
      else
        throw bad_option("--bins", request.bins, "write a whole number, or the edges: 0,2,8,24");
    }
    const drawn_population drawn(request, {.file = request.from.data});
    const vpc_result result = visual_predictive_check(
        drawn.model, drawn.source.parameters(drawn.model), drawn.simulated, plan);
    if (request.from.output.empty()) {
      table_sink out("");
      out.write(vpc_text(drawn.model, result));
      return out.finish();
    }
    table_sink out(request.from.output);
    out.write(vpc_csv(drawn.model, result));
    out.finish();
  });
}

}  // namespace varda
