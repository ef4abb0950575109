// SPDX-License-Identifier: Apache-2.0
//
// The ready structures: models that are written in the language of the equations, each a file of
// the folder structures. docs/structures.md shows them all.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "varda/model/specification.h"

namespace varda {

struct ready_parameter {
  std::string name;
  std::string meaning;
  std::string unit;  // a kind of unit: "volume/time"
  double start = 0.0;
  distribution law = distribution::log_normal;  // that suits it as a rule
  // A formula for a start value from what is seen in data (draft/features.h).
  std::string guess;
};

// A name with what it means.
struct described_name {
  std::string name;
  std::string meaning;
};

// Pharmacokinetics define the concentration C and the rate of elimination. A response uses one of
// them: it stands behind pharmacokinetics, "one-compartment oral + emax", or alone where the data
// have a column C. What is complete is a model of its own.
enum class structure_kind { pharmacokinetics, response, complete };

struct ready_structure {
  std::string name;
  std::string about;  // one line
  structure_kind kind = structure_kind::pharmacokinetics;
  std::string needs;   // of a response: "C" or "elimination"
  std::string source;  // in the literature
  std::string note;    // or empty
  std::vector<ready_parameter> parameters;
  std::vector<described_name> compartments;  // in the order of the states
  std::vector<described_name> observed;      // in the order of the outputs
  equation_text equations;                   // parameters and solver are the user's
};

// All of them, in the order of the documentation. The linear ones among them have the names of
// closed forms (structural_model.h): alone those stand for them.
const std::vector<ready_structure>& ready_structures();

// The structure with this name, or the two whose names stand on both sides of " + " as one; nothing
// where there is no such name. Throws bad_input (E-MODEL-COMBINATION) where two do not go together.
std::optional<ready_structure> find_ready_structure(const std::string& name);

}  // namespace varda
