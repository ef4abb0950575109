// SPDX-License-Identifier: Apache-2.0
#include "varda/input/model_file_parts.h"

#include <fmt/format.h>

#include <algorithm>
#include <string>
#include <vector>

#include "varda/data/csv.h"
#include "varda/model/structural_model.h"

namespace varda {

namespace {

double read_deviation(section& from, const std::string& key, bool& fixed) {
  const double value =
      from.fixable_number(key, "start", "a start value of the residual error", fixed);
  if (!(value > 0.0))
    throw from.error("E-MODEL-RANGE", key, fmt::format("{} is not above 0", value),
                     "standard deviations and exponents are positive");
  return value;
}

residual_error read_error(section& from) {
  residual_error r;
  r.kind = from.kind_or("error", r.kind);
  const auto read_additive = [&](const std::string& key) {
    r.additive = read_deviation(from, key, r.additive_fixed);
  };
  const auto read_proportional = [&] {
    r.proportional = read_deviation(from, "proportional", r.proportional_fixed);
  };
  switch (r.kind) {
    case error_kind::additive:
      read_additive("additive");
      break;
    case error_kind::proportional:
      read_proportional();
      break;
    case error_kind::combined:
    case error_kind::combined_sd:
      read_additive("additive");
      read_proportional();
      break;
    case error_kind::power:
      read_proportional();
      r.exponent = read_deviation(from, "exponent", r.exponent_fixed);
      break;
    case error_kind::log_normal:
      read_additive("log_normal");
      break;
  }
  return r;
}

// Endpoints by name, each a table with its residual error and its DVID.
void read_endpoints(section& from, model_specification& file) {
  constexpr int largest_dvid = 1000000;
  std::vector<std::string>& dvids = file.data.endpoints;
  dvids.clear();
  file.data.endpoint_names.clear();
  for (const std::string& name : from.keys()) {
    section of = from.needed_table(name, "the residual error of an endpoint");
    const int next = static_cast<int>(file.endpoints.size()) + 1;
    const std::string dvid =
        of.is_text("dvid") ? of.needed_text("dvid", "the DVID of the endpoint")
                           : fmt::format("{}", of.whole_number_or("dvid", next, 1, largest_dvid));
    if (std::find(dvids.begin(), dvids.end(), dvid) != dvids.end())
      throw of.error("E-MODEL-ENDPOINT", "dvid", fmt::format("DVID {} stands twice", dvid),
                     "give each endpoint a DVID of its own");
    if (is_missing(dvid))
      throw of.error("E-MODEL-ENDPOINT", "dvid", fmt::format("'{}' stands for no DVID", dvid),
                     "write the text that the column has for this endpoint");
    dvids.push_back(dvid);
    file.data.endpoint_names.push_back(of.has("dvid") ? "" : name);
    file.endpoints.push_back({name, read_error(of)});
    of.refuse_leftovers();
  }
}

}  // namespace

void read_residual(section from, model_specification& file) {
  const std::vector<std::string> keys = from.keys();
  const bool by_name =
      !keys.empty() && !from.has("error") &&
      std::all_of(keys.begin(), keys.end(), [&](const std::string& key) {
        return from.is_table(key) &&
               std::find(deviation_keys.begin(), deviation_keys.end(), key) == deviation_keys.end();
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
