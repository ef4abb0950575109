// SPDX-License-Identifier: Apache-2.0
//
// One formula, compiled to the parser's byte code. docs/equations.md describes the language.
#pragma once

#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace varda {

// A text that is no formula.
struct syntax_error {
  std::string message;  // what is wrong, with the position in the text
  std::string remedy;
};

class expression {
 public:
  // The names of variables that a text uses, each once. Throws syntax_error.
  static std::vector<std::string> names_in(const std::string& text);

  // `place` gives the address at which the value of a name stands; it must outlive the expression.
  // Throws syntax_error.
  expression(const std::string& text, const std::function<double*(const std::string&)>& place);
  expression(expression&&) noexcept;
  expression& operator=(expression&&) noexcept;
  ~expression();

  // The value at the present values of the variables. What has no value is NaN or infinite.
  // Evaluation writes the parser's own buffers: one thread at a time.
  double operator()() const;

 private:
  struct parser;
  std::unique_ptr<parser> parser_;
};

// The functions and the constants of the language.
std::vector<std::string> formula_functions();
std::vector<std::string> formula_constants();

// Whether a word can be the name of a variable: a letter, then letters, digits and underscores.
bool is_formula_name(const std::string& word);

}  // namespace varda
