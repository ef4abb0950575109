// SPDX-License-Identifier: Apache-2.0
//
// What `varda check` finds, and the two ways of telling it.
#pragma once

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "varda/data/dataset.h"
#include "varda/model/specification.h"
#include "varda/run/memory_needs.h"
#include "varda/support/finding.h"

namespace varda {

struct check_result {
  std::string model_path;
  findings errors;  // an input is sound when there are none
  findings warnings;
  std::optional<model_specification> model;  // where the model file can be read
  std::shared_ptr<const dataset> data;       // where the data set can be used
  // Of every subject, where there is a model to evaluate; nothing where that failed.
  std::vector<std::optional<double>> start_minus2_log_density;
  double minus2_log_density = 0.0;        // of all of them, where none failed
  std::optional<memory_forecast> memory;  // where a fit could begin
};

// For people: the data in figures, the first evaluation, what is wrong, the verdict.
std::string check_text(const check_result& result);

// The same for programs; docs/output-files.md describes it.
std::string check_json(const check_result& result);

}  // namespace varda
