// SPDX-License-Identifier: Apache-2.0
#include "varda/model/equations/expression.h"

#include <fmt/format.h>
#include <muParser.h>

#include <algorithm>
#include <cctype>
#include <cmath>
#include <limits>
#include <numbers>
#include <utility>

#include "varda/support/finding.h"

namespace varda {

struct expression::parser : mu::Parser {};

namespace {

bool is_name_character(char c) {
  return std::isalnum(static_cast<unsigned char>(c)) != 0 || c == '_';
}

double exp_of(double x) {
  return std::exp(x);
}
double expm1_of(double x) {
  return std::expm1(x);
}
double log_of(double x) {
  return std::log(x);
}
double log1p_of(double x) {
  return std::log1p(x);
}
double log2_of(double x) {
  return std::log2(x);
}
double log10_of(double x) {
  return std::log10(x);
}
double sqrt_of(double x) {
  return std::sqrt(x);
}
double abs_of(double x) {
  return std::fabs(x);
}
double floor_of(double x) {
  return std::floor(x);
}
double ceil_of(double x) {
  return std::ceil(x);
}
double sin_of(double x) {
  return std::sin(x);
}
double cos_of(double x) {
  return std::cos(x);
}
double tan_of(double x) {
  return std::tan(x);
}
double atan_of(double x) {
  return std::atan(x);
}
double tanh_of(double x) {
  return std::tanh(x);
}
double erf_of(double x) {
  return std::erf(x);
}
// A remainder with the sign of the divisor, so that mod(t, 24) is the time of day for negative t.
double mod_of(double x, double y) {
  return x - y * std::floor(x / y);
}
double pow_of(double x, double y) {
  return std::pow(x, y);
}

// NaN in, NaN out: std::min and std::max would drop it.
template <class Better>
double best_of(const double* values, int count, Better better) {
  double best = values[0];
  for (int i = 0; i < count; ++i) {
    if (std::isnan(values[i])) return values[i];
    if (better(values[i], best)) best = values[i];
  }
  return best;
}
double min_of(const double* values, int count) {
  return best_of(values, count, [](double a, double b) { return a < b; });
}
double max_of(const double* values, int count) {
  return best_of(values, count, [](double a, double b) { return a > b; });
}

// The language is fixed here and not by the parser's version.
void define_language(mu::Parser& parser) {
  parser.ClearFun();
  parser.ClearConst();
  parser.DefineFun("exp", exp_of);
  parser.DefineFun("expm1", expm1_of);
  parser.DefineFun("log", log_of);
  parser.DefineFun("log1p", log1p_of);
  parser.DefineFun("log2", log2_of);
  parser.DefineFun("log10", log10_of);
  parser.DefineFun("sqrt", sqrt_of);
  parser.DefineFun("abs", abs_of);
  parser.DefineFun("floor", floor_of);
  parser.DefineFun("ceil", ceil_of);
  parser.DefineFun("sin", sin_of);
  parser.DefineFun("cos", cos_of);
  parser.DefineFun("tan", tan_of);
  parser.DefineFun("atan", atan_of);
  parser.DefineFun("tanh", tanh_of);
  parser.DefineFun("erf", erf_of);
  parser.DefineFun("mod", mod_of);
  parser.DefineFun("pow", pow_of);
  parser.DefineFun("min", min_of);
  parser.DefineFun("max", max_of);
  parser.DefineConst("pi", std::numbers::pi);
}

// The name that ends before `end`, blanks passed over; "" where there is none.
std::string word_before(const std::string& text, std::size_t end) {
  while (end > 0 && text[end - 1] == ' ') --end;
  std::size_t begin = end;
  while (begin > 0 && is_name_character(text[begin - 1])) --begin;
  const std::string word = text.substr(begin, end - begin);
  return is_formula_name(word) ? word : "";
}

syntax_error unknown_function(const std::string& name, std::size_t position) {
  const std::vector<std::string> functions = formula_functions();
  const std::string near = did_you_mean(name, functions);
  return {fmt::format("there is no function {} (position {})", name, position + 1),
          near.empty() ? fmt::format("the functions are {}", fmt::join(functions, ", "))
                       : "did you mean " + near + "? A product needs *"};
}

// The parser's finding in the words of this program; its positions count from 0.
syntax_error explained(const mu::ParserError& error, const std::string& text) {
  const bool at_end = error.GetPos() < 0 || static_cast<std::size_t>(error.GetPos()) >= text.size();
  const std::size_t position = at_end ? text.size() : static_cast<std::size_t>(error.GetPos());
  const std::string place =
      at_end ? "at the end of the formula" : fmt::format("at position {}", position + 1);
  const auto found = [&](const char* what, const std::string& remedy) {
    return syntax_error{fmt::format("{} {}", what, place), remedy};
  };
  switch (error.GetCode()) {
    case mu::ecEMPTY_EXPRESSION:
      return {"the formula is empty", "write a formula, 0 for nothing"};
    case mu::ecUNEXPECTED_PARENS: {
      const std::string word =
          text[std::min(position, text.size() - 1)] == '(' ? word_before(text, position) : "";
      if (!word.empty()) return unknown_function(word, text.rfind(word, position));
      return found("an unexpected parenthesis", "every ( needs one ), and a product needs *");
    }
    case mu::ecMISSING_PARENS:
      return found("a parenthesis is missing", "every ( needs one )");
    case mu::ecTOO_MANY_PARAMS:
    case mu::ecTOO_FEW_PARAMS:
      return found("a function with a wrong number of arguments",
                   "most take one; pow and mod take two, min and max one or more");
    case mu::ecUNEXPECTED_EOF:
    case mu::ecUNEXPECTED_OPERATOR:
      return found("something is missing", "an operator needs a value on either side");
    case mu::ecMISSING_ELSE_CLAUSE:
    case mu::ecMISPLACED_COLON:
      return found("a choice is not complete", "write condition ? value : other value");
    case mu::ecUNEXPECTED_VAR:
    case mu::ecUNEXPECTED_VAL:
    case mu::ecUNEXPECTED_FUN:
      return found("an operator is missing", "write a product with *, and a decimal point once");
    default:
      return found("the formula cannot be understood",
                   "write it with + - * / ^, comparisons, && || and functions(...)");
  }
}

// An equals sign would assign to a variable, and a comma give several results of which the last
// counts.
void refuse_assignment(const std::string& text) {
  for (std::size_t i = 0; i < text.size(); ++i) {
    if (text[i] != '=') continue;
    const bool comparison = i > 0 && std::string("<>!").find(text[i - 1]) != std::string::npos;
    if (comparison) continue;
    if (i + 1 >= text.size() || text[i + 1] != '=')
      throw syntax_error{fmt::format("an equals sign at position {}", i + 1),
                         "a formula has no left-hand side; == compares"};
    ++i;
  }
}

}  // namespace

std::vector<std::string> expression::names_in(const std::string& text) {
  refuse_assignment(text);
  mu::Parser parser;
  define_language(parser);
  std::vector<std::string> names;
  try {
    parser.SetExpr(text);
    for (const auto& [name, address] : parser.GetUsedVar()) names.push_back(name);
  } catch (const mu::ParserError& error) {
    throw explained(error, text);
  }
  return names;
}

expression::expression(const std::string& text,
                       const std::function<double*(const std::string&)>& place)
    : parser_(std::make_unique<parser>()) {
  const std::vector<std::string> names = names_in(text);
  try {
    define_language(*parser_);
    for (const std::string& name : names) parser_->DefineVar(name, place(name));
    parser_->SetExpr(text);
    parser_->Eval();  // compiles
  } catch (const mu::ParserError& error) {
    throw explained(error, text);
  }
  if (parser_->GetNumResults() != 1)
    throw syntax_error{"a comma outside the arguments of a function",
                       "numbers have a decimal point, and a key has one formula"};
}

expression::expression(expression&&) noexcept = default;
expression& expression::operator=(expression&&) noexcept = default;
expression::~expression() = default;

double expression::operator()() const {
  return parser_->Eval();
}

std::vector<std::string> formula_functions() {
  mu::Parser parser;
  define_language(parser);
  std::vector<std::string> names;
  for (const auto& [name, callback] : parser.GetFunDef()) names.push_back(name);
  return names;
}

std::vector<std::string> formula_constants() {
  return {"pi"};
}

bool is_formula_name(const std::string& word) {
  return !word.empty() && std::isalpha(static_cast<unsigned char>(word[0])) != 0 &&
         std::all_of(word.begin(), word.end(), is_name_character);
}

}  // namespace varda
