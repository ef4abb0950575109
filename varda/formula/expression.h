// SPDX-License-Identifier: Apache-2.0
//
// One formula, read into a tree. docs/equations.md describes the language.
#pragma once

#include <cstddef>
#include <map>
#include <string>
#include <vector>

#include "varda/formula/operation.h"

namespace varda {

// A text that is no formula.
struct syntax_error {
  std::string message;  // what is wrong, with the position in the text
  std::string remedy;
};

class expression {
 public:
  enum class node_kind { number, text, name, operation };
  struct node {
    node_kind kind = node_kind::number;
    double value = 0.0;                // of a number
    std::size_t name = 0;              // position in names(), of a text in texts()
    lane_code code = lane_code::copy;  // of an operation, with its operands' positions
    std::size_t a = 0;
    std::size_t b = 0;
    std::size_t c = 0;
  };

  // Throws syntax_error.
  explicit expression(const std::string& text);

  // The variables that the formula uses, each once, in alphabetical order.
  const std::vector<std::string>& names() const { return names_; }
  // The texts between quotes, in the order of the formula.
  const std::vector<std::string>& texts() const { return texts_; }
  // Operands stand before their operation; the last node is the value.
  const std::vector<node>& nodes() const { return nodes_; }

  // What a formula does with a variable: the texts that it compares it with (== and !=), and
  // whether it does anything else with it than to compare it with texts and numbers so.
  struct use {
    std::vector<std::string> texts;
    bool computes = false;
  };
  std::map<std::string, use> uses() const;

 private:
  class reader;

  std::vector<std::string> names_;
  std::vector<std::string> texts_;
  std::vector<node> nodes_;
};

// The functions and the constants of the language.
std::vector<std::string> formula_functions();
std::vector<std::string> formula_constants();

// Whether a word can be the name of a variable: a letter, then letters, digits and underscores.
bool is_formula_name(const std::string& word);

}  // namespace varda
