// SPDX-License-Identifier: Apache-2.0
#include "varda/cli/check.h"

#include <fmt/format.h>

#include <utility>

#include "varda/data/refusals.h"
#include "varda/input/model_file.h"
#include "varda/model/plausibility.h"
#include "varda/model/population.h"
#include "varda/model/specification.h"
#include "varda/report/check_report.h"
#include "varda/run/fit.h"

namespace varda {

namespace {

void evaluate_all(const population_model& model, check_result& result) {
  refusals failed(most_data_errors);
  for (int i = 0; i < model.subjects(); ++i) {
    result.start.push_back(evaluate_start(model, i));
    result.minus2_log_density += result.start.back().minus2_log_density;
    const std::optional<finding>& failure = result.start.back().failure;
    if (failure) failed.add(*failure);
  }
  const findings errors = failed.errors();
  result.errors.insert(result.errors.end(), errors.begin(), errors.end());
}

check_result inspect(const std::string& model_path) {
  check_result result;
  result.model_path = model_path;
  try {
    result.model = read_model_file(model_path, result.warnings);
    dataset data = inspect_dataset(result.model->data, result.warnings, result.errors);
    if (!result.errors.empty()) return result;
    result.data = data;
    const population_model model(*result.model, std::move(data));
    evaluate_all(model, result);
    if (result.errors.empty()) {
      const findings odd = implausible(model);
      result.warnings.insert(result.warnings.end(), odd.begin(), odd.end());
    }
    check_fit(model);
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
    const check_result result = inspect(request.model_path);
    fmt::print("{}", request.json ? check_json(result) : check_text(result));
    refused = !result.errors.empty();
  }
  return peers.any(refused) ? exit_status::unusable_input : exit_status::sound;
}

}  // namespace varda
