// SPDX-License-Identifier: Apache-2.0
#include "varda/input/model_file_parts.h"

#include <fmt/format.h>

#include <algorithm>

#include "varda/model/structural_model.h"

namespace varda {

namespace {

double read_deviation(section& from, const std::string& key, bool& fixed) {
  const double value =
      from.fixable_number(key, "start", "a start value of the residual error", fixed);
  if (!(value > 0.0))
    throw from.error("E-MODEL-RANGE", key, fmt::format("the deviation {} is not above 0", value),
                     "standard deviations are positive");
  return value;
}

residual_error read_error(section& from) {
  residual_error r;
  r.kind = static_cast<error_kind>(
      from.word_or("error", 0, {"additive", "proportional", "combined", "log-normal"}));
  if (r.kind == error_kind::log_normal)
    r.additive = read_deviation(from, "log_normal", r.additive_fixed);
  if (r.kind == error_kind::additive || r.kind == error_kind::combined)
    r.additive = read_deviation(from, "additive", r.additive_fixed);
  if (r.kind == error_kind::proportional || r.kind == error_kind::combined)
    r.proportional = read_deviation(from, "proportional", r.proportional_fixed);
  return r;
}

// Endpoints by name, each a table with its residual error and its DVID.
void read_endpoints(section& from, model_specification& file) {
  constexpr int largest_dvid = 1000000;
  file.data.endpoints.clear();
  for (const std::string& name : from.keys()) {
    section of = from.needed_table(name, "the residual error of an endpoint");
    const int next = static_cast<int>(file.endpoints.size()) + 1;
    const int dvid = of.whole_number_or("dvid", next, 1, largest_dvid);
    if (std::find(file.data.endpoints.begin(), file.data.endpoints.end(), dvid) !=
        file.data.endpoints.end())
      throw of.error("E-MODEL-ENDPOINT", "dvid", fmt::format("DVID {} stands twice", dvid),
                     "give each endpoint a DVID of its own");
    file.data.endpoints.push_back(dvid);
    file.endpoints.push_back({name, read_error(of)});
    of.refuse_leftovers();
  }
}

}  // namespace

void read_residual(section from, model_specification& file) {
  const std::vector<std::string> keys = from.keys();
  const bool by_name = !keys.empty() && !from.has("error") &&
                       std::all_of(keys.begin(), keys.end(), [&](const std::string& key) {
                         return from.is_table(key) && key != "additive" && key != "proportional" &&
                                key != "log_normal";
                       });
  if (by_name) {
    read_endpoints(from, file);
  } else {
    file.endpoints.push_back({"", read_error(from)});
    from.refuse_leftovers();
  }
  const int outputs = make_structural_model(file.structure)->outputs();
  if (outputs != 1 && outputs != static_cast<int>(file.endpoints.size()))
    throw from.error(
        "E-MODEL-ENDPOINT", "",
        fmt::format("the model has {} outputs and {} endpoints", outputs, file.endpoints.size()),
        "write a [residual.NAME] table for every output, in their order");
}

}  // namespace varda
