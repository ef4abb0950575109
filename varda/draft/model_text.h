// SPDX-License-Identifier: Apache-2.0
//
// A model file with comments for a structure.
#pragma once

#include <map>
#include <string>
#include <vector>

#include "varda/input/ready_structures.h"

namespace varda {

// A deviation of an endpoint's error by its key in the model file.
struct drafted_deviation {
  std::string key;
  double value = 0.0;
};

struct drafted_endpoint {
  std::string output;  // of the structure
  std::string dvid;    // of the data, or empty
  error_kind error = error_kind::proportional;
  std::vector<drafted_deviation> deviations;
};

struct drafted_model {
  ready_structure structure;
  bool as_equations = false;                   // write the equations out
  std::vector<std::string> remarks;            // comments on top, a line each
  std::string data_file = "data.csv";          // as the model file names it
  std::map<std::string, std::string> columns;  // role -> column
  std::vector<drafted_endpoint> endpoints;     // one for each output that is observed
  std::map<std::string, double> start;         // by parameter; the structure's own otherwise
  std::map<std::string, double> variance;      // by parameter; a common value otherwise
};

// With the structure's own start values and an endpoint for each of `outputs`, all of them where it
// is empty.
drafted_model draft_of(const ready_structure& structure, const std::vector<std::string>& outputs);

// The keys of an error's deviations.
std::vector<std::string> deviation_keys_of(error_kind error);

std::string model_text(const drafted_model& draft);

// The tables of its equations as in a model file, each after an empty line; empty where there are
// none.
std::string equations_text(const ready_structure& s);

// A page about a structure: what it is, its parameters, compartments, outputs, equations, source.
std::string description_of(const ready_structure& s);

}  // namespace varda
