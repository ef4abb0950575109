// SPDX-License-Identifier: Apache-2.0
#include "varda/cli/check.h"

#include <fmt/format.h>

#include <algorithm>
#include <memory>
#include <optional>
#include <thread>
#include <utility>

#include "varda/data/refusals.h"
#include "varda/input/model_file.h"
#include "varda/model/plausibility.h"
#include "varda/model/population.h"
#include "varda/model/specification.h"
#include "varda/model/start_evaluation.h"
#include "varda/report/check_report.h"
#include "varda/run/fit.h"

namespace varda {

namespace {

void evaluate_all(const population_model& model, check_result& result) {
  refusals failed(most_data_errors);
  for (int i = 0; i < model.subjects(); ++i) {
    const start_evaluation found = evaluate_start(model, i);
    result.minus2_log_density += found.minus2_log_density;
    result.start_minus2_log_density.push_back(
        found.failure ? std::nullopt : std::optional(found.minus2_log_density));
    if (found.failure) failed.add(*found.failure);
  }
  const findings errors = failed.errors();
  result.errors.insert(result.errors.end(), errors.begin(), errors.end());
}

// Those that a fit by one process would have.
int threads_of_fit(const population_model& model) {
  const int wanted = model.specification().estimation.threads;
  return wanted > 0 ? wanted : std::max(static_cast<int>(std::thread::hardware_concurrency()), 1);
}

// The data are shown whether a model can be made of them or not. It keeps them, and there may be no
// room for two of them; those that go down with a model are read again.
std::shared_ptr<const population_model> make_model(dataset data, check_result& result) {
  try {
    const auto model = std::make_shared<const population_model>(*result.model, std::move(data));
    result.data = std::shared_ptr<const dataset>(model, &model->data());
    return model;
  } catch (const bad_input&) {
    findings known;
    findings errors;
    const auto again =
        std::make_shared<const dataset>(inspect_dataset(result.model->data, known, errors));
    if (errors.empty()) result.data = again;
    throw;
  }
}

check_result inspect(const std::string& model_path, const job& peers) {
  check_result result;
  result.model_path = model_path;
  try {
    result.model = read_model_file(model_path, result.warnings);
    dataset data = inspect_dataset(result.model->data, result.warnings, result.errors);
    if (!result.errors.empty()) return result;
    const auto model = make_model(std::move(data), result);
    evaluate_all(*model, result);
    if (result.errors.empty()) {
      const findings odd = implausible(*model);
      result.warnings.insert(result.warnings.end(), odd.begin(), odd.end());
    }
    check_fit(*model);
    result.memory = forecast_memory(*model, peers.size(), threads_of_fit(*model));
  } catch (const bad_input& error) {
    result.errors.push_back(error.what_found());
  }
  return result;
}

}  // namespace

exit_status check(const check_request& request, const job& peers) {
  // The others learn the verdict: mpirun reports the status of every process.
  bool refused = false;
  if (peers.is_root()) {
    const check_result result = inspect(request.model_path, peers);
    fmt::print("{}", request.json ? check_json(result) : check_text(result));
    refused = !result.errors.empty();
  }
  return peers.any(refused) ? exit_status::unusable_input : exit_status::sound;
}

}  // namespace varda
