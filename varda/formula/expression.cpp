// SPDX-License-Identifier: Apache-2.0
#include "varda/formula/expression.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <charconv>
#include <iterator>
#include <numbers>
#include <optional>
#include <string_view>
#include <utility>

#include "varda/support/finding.h"

namespace varda {

namespace {

bool is_digit(char c) {
  return std::isdigit(static_cast<unsigned char>(c)) != 0;
}
bool is_quote(char c) {
  return c == '"' || c == '\'';
}
bool is_name_character(char c) {
  return std::isalnum(static_cast<unsigned char>(c)) != 0 || c == '_';
}

constexpr std::array<std::pair<const char*, lane_code>, 21> functions_of_one = {{
    {"abs", lane_code::absolute},
    {"atan", lane_code::arctangent},
    {"ceil", lane_code::ceiling},
    {"cos", lane_code::cosine},
    {"erf", lane_code::error_function},
    {"exp", lane_code::exponential},
    {"expm1", lane_code::expm1},
    {"floor", lane_code::floor},
    {"lgamma", lane_code::log_gamma},
    {"log", lane_code::logarithm},
    {"log10", lane_code::log10},
    {"log1p", lane_code::log1p},
    {"log2", lane_code::log2},
    {"normal_cdf", lane_code::normal_cdf},
    {"normal_lcdf", lane_code::log_normal_cdf},
    {"sin", lane_code::sine},
    {"sqrt", lane_code::square_root},
    {"tan", lane_code::tangent},
    {"tanh", lane_code::tanh},
    {"max", lane_code::maximum},
    {"min", lane_code::minimum},
}};

// Binary operators from those that bind loosest; a later one of two that begin alike is shorter.
struct binary_operator {
  std::string_view sign;
  int binds;
  lane_code code;
  bool turned = false;  // a > b is b < a
};
constexpr std::array<binary_operator, 12> binary_operators = {{
    {"||", 1, lane_code::either},
    {"&&", 2, lane_code::both},
    {"<=", 3, lane_code::less_equal},
    {">=", 3, lane_code::less_equal, true},
    {"==", 3, lane_code::equal},
    {"!=", 3, lane_code::not_equal},
    {"<", 3, lane_code::less},
    {">", 3, lane_code::less, true},
    {"+", 4, lane_code::add},
    {"-", 4, lane_code::subtract},
    {"*", 5, lane_code::multiply},
    {"/", 5, lane_code::divide},
}};
constexpr int binds_tightest = 5;

// Parentheses and operators within one another; deeper ones would use up the program's stack.
constexpr int most_levels = 500;

syntax_error unknown_function(const std::string& name, std::size_t position) {
  const std::vector<std::string> functions = formula_functions();
  const std::string near = did_you_mean(name, functions);
  return {fmt::format("there is no function {} (position {})", name, position + 1),
          near.empty() ? fmt::format("the functions are {}", fmt::join(functions, ", "))
                       : "did you mean " + near + "? A product needs *"};
}

}  // namespace

// Descends from what binds loosest.
class expression::reader {
 public:
  reader(expression& into, const std::string& text) : into_(into), text_(text) {}

  void read() {
    refuse_assignment();
    skip_blanks();
    if (at_end()) throw syntax_error{"the formula is empty", "write a formula, 0 for nothing"};
    choice();
    if (at_end()) return;
    if (text_[at_] == ',') throw comma();
    if (text_[at_] == ')') throw stray_parenthesis();
    if (text_[at_] == ':') throw incomplete_choice();
    throw leftover();
  }

 private:
  // An operand, by its position among the nodes.
  using operand = std::size_t;

  bool at_end() const { return at_ >= text_.size(); }
  void skip_blanks() {
    while (!at_end() && std::isspace(static_cast<unsigned char>(text_[at_])) != 0) ++at_;
  }
  bool take(std::string_view sign) {
    if (text_.compare(at_, sign.size(), sign) != 0) return false;
    at_ += sign.size();
    skip_blanks();
    return true;
  }

  operand add(node one) {
    into_.nodes_.push_back(one);
    return into_.nodes_.size() - 1;
  }
  operand number(double value) { return add({.kind = node_kind::number, .value = value}); }
  operand apply(lane_code code, operand a, operand b = 0, operand c = 0) {
    return add({.kind = node_kind::operation, .code = code, .a = a, .b = b, .c = c});
  }

  struct level {
    explicit level(reader& of) : of_(of) {
      if (++of_.levels_ > most_levels)
        throw of_.found("parentheses or operators too deep", "divide it into definitions");
    }
    ~level() { --of_.levels_; }
    level(const level&) = delete;
    level& operator=(const level&) = delete;
    reader& of_;
  };

  operand choice() {
    const level deeper(*this);
    const operand condition = binary(1);
    if (!take("?")) return condition;
    const operand yes = choice();
    if (!take(":")) {
      if (at_end() || text_[at_] == ')') throw incomplete_choice();
      throw leftover();
    }
    const operand no = choice();
    return apply(lane_code::select, condition, yes, no);
  }

  operand binary(int binds) {
    if (binds > binds_tightest) return negated();
    operand left = binary(binds + 1);
    for (;;) {
      const auto* const sign = std::find_if(
          binary_operators.begin(), binary_operators.end(),
          [&](const binary_operator& o) { return text_.compare(at_, o.sign.size(), o.sign) == 0; });
      if (sign == binary_operators.end() || sign->binds != binds) return left;
      take(sign->sign);
      const operand right = binary(binds + 1);
      left = sign->turned ? apply(sign->code, right, left) : apply(sign->code, left, right);
    }
  }

  operand negated() {
    const level deeper(*this);
    if (take("-")) return apply(lane_code::negate, negated());
    if (take("+")) return negated();
    return power();
  }

  operand power() {
    const operand base = primary();
    if (!take("^")) return base;
    return apply(lane_code::power, base, negated());
  }

  operand primary() {
    if (at_end()) throw missing();
    const char c = text_[at_];
    if (c == '(') {
      ++at_;
      skip_blanks();
      const operand inner = choice();
      close();
      return inner;
    }
    if (is_digit(c) || c == '.') return literal();
    if (is_name_character(c)) return word();
    if (is_quote(c)) return quoted();
    if (c == ')') {
      if (at_ > 0 && text_.find_last_not_of(" \t", at_ - 1) != std::string::npos &&
          text_[text_.find_last_not_of(" \t", at_ - 1)] != '(')
        throw missing();
      throw stray_parenthesis();
    }
    if (c == ',') throw comma();
    if (c == ':' || c == '?') throw incomplete_choice();
    if (std::string_view("+-*/^<>=!&|").find(c) != std::string_view::npos) throw missing();
    throw not_understood();
  }

  void close() {
    if (take(")")) return;
    if (at_end()) throw found("a parenthesis is missing", "every ( needs one )");
    if (text_[at_] == ',') throw comma();
    if (text_[at_] == ':') throw incomplete_choice();
    throw leftover();
  }

  operand literal() {
    double value = 0.0;
    const auto [end, error] =
        std::from_chars(text_.data() + at_, text_.data() + text_.size(), value);
    if (error != std::errc()) throw not_understood();
    at_ = static_cast<std::size_t>(end - text_.data());
    skip_blanks();
    return number(value);
  }

  operand quoted() {
    const std::size_t begin = at_ + 1;
    const std::size_t end = text_.find(text_[at_], begin);
    if (end == std::string::npos) throw found("a quote that is not closed", "close the quote");
    into_.texts_.push_back(text_.substr(begin, end - begin));
    at_ = end + 1;
    skip_blanks();
    return add({.kind = node_kind::text, .name = into_.texts_.size() - 1});
  }

  operand word() {
    const std::size_t begin = at_;
    while (!at_end() && is_name_character(text_[at_])) ++at_;
    const std::string name = text_.substr(begin, at_ - begin);
    skip_blanks();
    if (!at_end() && text_[at_] == '(') return call(name, begin);
    if (name == "pi") return number(std::numbers::pi);
    std::vector<std::string>& names = into_.names_;
    const auto known = std::find(names.begin(), names.end(), name);
    const auto position = static_cast<std::size_t>(known - names.begin());
    if (known == names.end()) names.push_back(name);
    return add({.kind = node_kind::name, .name = position});
  }

  operand call(const std::string& name, std::size_t begin) {
    const auto* const one = std::find_if(functions_of_one.begin(), functions_of_one.end(),
                                         [&](const auto& f) { return name == f.first; });
    const bool of_two = name == "pow" || name == "mod";
    if (one == functions_of_one.end() && !of_two) throw unknown_function(name, begin);
    take("(");
    std::vector<operand> arguments;
    if (!at_end() && text_[at_] != ')') {
      do arguments.push_back(choice());
      while (take(","));
    }
    const auto wrong_number = [&] {
      return found("a function with a wrong number of arguments",
                   "most take one; pow and mod take two, min and max one or more");
    };
    const bool any_number = name == "min" || name == "max";
    const std::size_t wanted = of_two ? 2 : 1;
    if (arguments.empty() || (!any_number && arguments.size() > wanted)) throw wrong_number();
    close();
    if (!any_number && arguments.size() != wanted) throw wrong_number();
    if (name == "pow") return apply(lane_code::power, arguments[0], arguments[1]);
    if (name == "mod") return modulo(arguments[0], arguments[1]);
    if (!any_number) return apply(one->second, arguments[0]);
    operand best = arguments[0];
    for (std::size_t k = 1; k < arguments.size(); ++k)
      best = apply(one->second, best, arguments[k]);
    return best;
  }

  // A remainder with the sign of the divisor, so that mod(t, 24) is the time of day for negative t.
  operand modulo(operand x, operand y) {
    const operand whole = apply(lane_code::floor, apply(lane_code::divide, x, y));
    return apply(lane_code::subtract, x, apply(lane_code::multiply, y, whole));
  }

  std::string place() const {
    return at_end() ? "at the end of the formula" : fmt::format("at position {}", at_ + 1);
  }
  syntax_error found(const char* what, const char* remedy) const {
    return {fmt::format("{} {}", what, place()), remedy};
  }
  syntax_error missing() const {
    return found("something is missing", "an operator needs a value on either side");
  }
  syntax_error incomplete_choice() const {
    return found("a choice is not complete", "write condition ? value : other value");
  }
  syntax_error stray_parenthesis() const {
    return found("an unexpected parenthesis", "every ( needs one ), and a product needs *");
  }
  syntax_error not_understood() const {
    return found("the formula cannot be understood",
                 "write it with + - * / ^, comparisons, && || and functions(...)");
  }
  static syntax_error comma() {
    return {"a comma outside the arguments of a function",
            "numbers have a decimal point, and a key has one formula"};
  }
  // What stands where an operator is expected.
  syntax_error leftover() const {
    const char c = text_[at_];
    if (c == '(') return stray_parenthesis();
    if (is_name_character(c) || c == '.')
      return found("an operator is missing", "write a product with *, and a decimal point once");
    return not_understood();
  }

  // An equals sign would assign to a variable.
  void refuse_assignment() const {
    for (std::size_t i = 0; i < text_.size(); ++i) {
      if (is_quote(text_[i])) i = std::min(text_.find(text_[i], i + 1), text_.size() - 1);
      if (text_[i] != '=') continue;
      const bool comparison = i > 0 && std::string("<>!").find(text_[i - 1]) != std::string::npos;
      if (comparison) continue;
      if (i + 1 >= text_.size() || text_[i + 1] != '=')
        throw syntax_error{fmt::format("an equals sign at position {}", i + 1),
                           "a formula has no left-hand side; == compares"};
      ++i;
    }
  }

  expression& into_;
  const std::string& text_;
  std::size_t at_ = 0;
  int levels_ = 0;
};

expression::expression(const std::string& text) {
  reader(*this, text).read();
  std::vector<std::string> sorted = names_;
  std::sort(sorted.begin(), sorted.end());
  for (node& one : nodes_)
    if (one.kind == node_kind::name)
      one.name = static_cast<std::size_t>(
          std::lower_bound(sorted.begin(), sorted.end(), names_[one.name]) - sorted.begin());
  names_ = std::move(sorted);
}

std::map<std::string, expression::use> expression::uses() const {
  std::map<std::string, use> all;
  std::vector<char> compared(nodes_.size(), 0);
  const auto compare = [&](std::size_t a, std::size_t b) {
    if (nodes_[a].kind != node_kind::name) return;
    if (nodes_[b].kind == node_kind::text)
      all[names_[nodes_[a].name]].texts.push_back(texts_[nodes_[b].name]);
    else if (nodes_[b].kind != node_kind::number)
      return;
    compared[a] = 1;
  };
  for (const node& one : nodes_)
    if (one.kind == node_kind::operation &&
        (one.code == lane_code::equal || one.code == lane_code::not_equal)) {
      compare(one.a, one.b);
      compare(one.b, one.a);
    }
  for (std::size_t k = 0; k < nodes_.size(); ++k)
    if (nodes_[k].kind == node_kind::name && compared[k] == 0)
      all[names_[nodes_[k].name]].computes = true;
  return all;
}

std::vector<std::string> formula_functions() {
  std::vector<std::string> names = {"mod", "pow"};
  for (const auto& [name, code] : functions_of_one) names.emplace_back(name);
  std::sort(names.begin(), names.end());
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
