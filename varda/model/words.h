// SPDX-License-Identifier: Apache-2.0
//
// The words by which model files and reports call the choices of a specification.
#pragma once

#include <string>
#include <vector>

#include "varda/model/specification.h"

namespace varda {

// Null for a value that is none of the enumerators.
const char* name_of(parametrisation by);
const char* name_of(distribution law);
const char* name_of(solver_method method);
const char* name_of(effect_form form);
const char* name_of(endpoint_kind kind);
const char* name_of(link_kind kind);
const char* name_of(error_kind kind);
const char* name_of(residual_distribution law);
const char* name_of(proposal_family family);
const char* name_of(point_kind kind);
const char* name_of(start_kind kind);
const char* name_of(likelihood_kind kind);
const char* name_of(method_kind kind);
const char* name_of(standard_error_kind kind);

template <class Value>
struct named {
  const char* name;
  Value value;
};

// The enumerators, which count from 0, in their order.
template <class Kind>
std::vector<named<Kind>> every_name() {
  std::vector<named<Kind>> all;
  for (int k = 0; name_of(static_cast<Kind>(k)) != nullptr; ++k)
    all.push_back({name_of(static_cast<Kind>(k)), static_cast<Kind>(k)});
  return all;
}

template <class Value>
std::vector<std::string> words_of(const std::vector<named<Value>>& list) {
  std::vector<std::string> words;
  for (const named<Value>& entry : list) words.emplace_back(entry.name);
  return words;
}

}  // namespace varda
