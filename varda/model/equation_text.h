// SPDX-License-Identifier: Apache-2.0
//
// A structural model in equations as it stands in a model file: texts, not yet compiled.
#pragma once

#include <exception>
#include <string>
#include <utility>
#include <vector>

namespace varda {

struct formula_line {
  std::string name;
  std::string text;
};

struct solver_settings {
  bool stiff = false;
  double relative = 1e-9;   // error allowed in a step, as a share of the state
  double absolute = 1e-11;  // and near 0, as a share of the subject's largest dose
  int max_steps = 100000;   // between two events
};

// The sections of [model], each in the order of the file. A model without derivatives has no
// states, and its outputs are formulas of parameters, covariates, time and dose.
struct equation_text {
  std::vector<std::string> parameters;  // names that formulas may use for parameters
  std::vector<formula_line> definitions;
  std::vector<formula_line> derivatives;  // of the states
  std::vector<formula_line> initial;      // by state, like the next four
  std::vector<formula_line> lag;
  std::vector<formula_line> bioavailability;
  std::vector<formula_line> rate;
  std::vector<formula_line> duration;
  std::vector<formula_line> outputs;
  solver_settings solver;
};

// A formula that is refused: the section and key it stands under, and a finding's code, message and
// remedy.
struct formula_error : std::exception {
  formula_error(std::string of_section, std::string of_key, std::string with_code,
                std::string with_message, std::string with_remedy)
      : section(std::move(of_section)),
        key(std::move(of_key)),
        code(std::move(with_code)),
        message(std::move(with_message)),
        remedy(std::move(with_remedy)) {}
  const char* what() const noexcept override { return message.c_str(); }

  std::string section;
  std::string key;
  std::string code;
  std::string message;
  std::string remedy;
};

}  // namespace varda
