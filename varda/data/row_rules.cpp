// SPDX-License-Identifier: Apache-2.0
#include "varda/data/row_rules.h"

#include <fmt/format.h>

#include <algorithm>
#include <cmath>
#include <map>
#include <numbers>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "statsubs/distributions/gamma.h"
#include "varda/formula/expression.h"
#include "varda/support/digest.h"
#include "varda/support/text.h"

namespace varda {

namespace {

// The value of a field or of a part of a formula. `column`: where a text is from, or the text that
// made a value impossible; -1 for one of the formula's own.
struct cell {
  enum class kind { number, text, missing, impossible };
  kind what = kind::missing;
  double number = 0.0;
  std::string_view text{};
  int column = -1;
};

using kind = cell::kind;

cell of_number(double x) {
  return {.what = kind::number, .number = x};
}

cell of_text(std::string_view text, int column) {
  if (is_missing(text)) return {};
  if (const std::optional<double> x = to_number(text)) return of_number(*x);
  return {.what = kind::text, .text = text, .column = column};
}

cell impossible(const cell& because) {
  return {.what = kind::impossible, .column = because.column};
}

bool holds(const cell& a) {
  return a.what == kind::number && a.number != 0.0 && !std::isnan(a.number);
}

bool cannot_count(const cell& a) {
  return a.what == kind::text || a.what == kind::impossible;
}

bool equal(const cell& a, const cell& b) {
  if (a.what != b.what) return false;
  return a.what == kind::number ? a.number == b.number : a.what == kind::text && a.text == b.text;
}

// The tail beyond the range of erfc by the asymptotic series of Mills' ratio.
double log_normal_cdf(double x) {
  if (x > -30.0) return std::log(0.5 * std::erfc(-x / std::numbers::sqrt2));
  const double w = 1.0 / (x * x);
  return -0.5 * (x * x + std::log(2.0 * std::numbers::pi)) - std::log(-x) +
         std::log1p(-w * (1.0 - w * (3.0 - w * (15.0 - w * 105.0))));
}

double computed(lane_code code, double a, double b) {
  switch (code) {
    case lane_code::copy:
      return a;
    case lane_code::negate:
      return -a;
    case lane_code::add:
      return a + b;
    case lane_code::subtract:
      return a - b;
    case lane_code::multiply:
      return a * b;
    case lane_code::divide:
      return a / b;
    case lane_code::less:
      return a < b ? 1.0 : 0.0;
    case lane_code::less_equal:
      return a <= b ? 1.0 : 0.0;
    case lane_code::minimum:
      return std::min(a, b);
    case lane_code::maximum:
      return std::max(a, b);
    case lane_code::power:
      return std::pow(a, b);
    case lane_code::exponential:
      return std::exp(a);
    case lane_code::expm1:
      return std::expm1(a);
    case lane_code::logarithm:
      return std::log(a);
    case lane_code::log1p:
      return std::log1p(a);
    case lane_code::log2:
      return std::log2(a);
    case lane_code::log10:
      return std::log10(a);
    case lane_code::square_root:
      return std::sqrt(a);
    case lane_code::absolute:
      return std::fabs(a);
    case lane_code::floor:
      return std::floor(a);
    case lane_code::ceiling:
      return std::ceil(a);
    case lane_code::sine:
      return std::sin(a);
    case lane_code::cosine:
      return std::cos(a);
    case lane_code::tangent:
      return std::tan(a);
    case lane_code::arctangent:
      return std::atan(a);
    case lane_code::tanh:
      return std::tanh(a);
    case lane_code::error_function:
      return std::erf(a);
    case lane_code::log_gamma:
      return a > 0.0 ? statsubs::gamln(a) : std::nan("");
    case lane_code::normal_cdf:
      return 0.5 * std::erfc(-a / std::numbers::sqrt2);
    case lane_code::log_normal_cdf:
      return log_normal_cdf(a);
    case lane_code::equal:
    case lane_code::not_equal:
    case lane_code::both:
    case lane_code::either:
    case lane_code::select:
    case lane_code::multiply_add:
    case lane_code::multiply_subtract:
    case lane_code::subtract_multiply:
    case lane_code::digamma:
    case lane_code::log_gamma_ratio:
    case lane_code::log_normal_share:
      break;
  }
  return std::nan("");
}

bool has_two_operands(lane_code code) {
  switch (code) {
    case lane_code::add:
    case lane_code::subtract:
    case lane_code::multiply:
    case lane_code::divide:
    case lane_code::less:
    case lane_code::less_equal:
    case lane_code::minimum:
    case lane_code::maximum:
    case lane_code::power:
      return true;
    default:
      return false;
  }
}

// A text spoils what is computed from it, and a missing value leaves nothing but a comparison that
// does not hold. Of a choice only the side that is taken counts.
cell apply(lane_code code, const cell& a, const cell& b, const cell& c) {
  const auto truth = [](bool yes) { return of_number(yes ? 1.0 : 0.0); };
  switch (code) {
    case lane_code::equal:
    case lane_code::not_equal:
      if (a.what == kind::impossible) return a;
      if (b.what == kind::impossible) return b;
      return truth(equal(a, b) == (code == lane_code::equal));
    case lane_code::both:
      if (cannot_count(a)) return impossible(a);
      return !holds(a) ? truth(false) : cannot_count(b) ? impossible(b) : truth(holds(b));
    case lane_code::either:
      if (cannot_count(a)) return impossible(a);
      return holds(a) ? truth(true) : cannot_count(b) ? impossible(b) : truth(holds(b));
    case lane_code::select:
      return cannot_count(a) ? impossible(a) : holds(a) ? b : c;
    default:
      break;
  }
  const bool two = has_two_operands(code);
  if (cannot_count(a)) return impossible(a);
  if (two && cannot_count(b)) return impossible(b);
  const bool comparison = code == lane_code::less || code == lane_code::less_equal;
  if (a.what == kind::missing || (two && b.what == kind::missing))
    return comparison ? truth(false) : cell{};
  return of_number(computed(code, a.number, b.number));
}

// A formula of columns, by their positions.
class row_formula {
 public:
  row_formula(const formula_line& line, const csv_table& table)
      : name_(line.name), read_(line.text) {
    for (const std::string& name : read_.names()) {
      const auto at = std::find_if(
          table.header.begin(), table.header.end(),
          [&](const std::string& column) { return equal_ignoring_case(column, name); });
      if (at == table.header.end()) {
        const std::string near = did_you_mean(name, table.header);
        throw bad_input(
            {.code = "E-DATA-COLUMN",
             .message = fmt::format("data.{} uses {}, which is not a column", name_, name),
             .remedy = near.empty()
                           ? "use the names of the header" + std::string(", or define it above")
                           : "did you mean " + near + "?",
             .file = table.file,
             .row = table.header_line,
             .column = name});
      }
      columns_.push_back(static_cast<int>(at - table.header.begin()));
    }
  }

  const std::string& name() const { return name_; }

  // `row`: the fields up to the first column that is not computed yet.
  const cell& of(const std::vector<cell>& row) {
    values_.clear();
    for (const expression::node& n : read_.nodes()) {
      switch (n.kind) {
        case expression::node_kind::number:
          values_.push_back(of_number(n.value));
          break;
        case expression::node_kind::text:
          values_.push_back(of_text(read_.texts()[n.name], -1));
          break;
        case expression::node_kind::name:
          values_.push_back(row[static_cast<std::size_t>(columns_[n.name])]);
          break;
        case expression::node_kind::operation:
          values_.push_back(apply(n.code, values_[n.a], values_[n.b], values_[n.c]));
          break;
      }
    }
    return values_.back();
  }

  const std::vector<int>& columns() const { return columns_; }

 private:
  std::string name_;
  expression read_;
  std::vector<int> columns_;
  std::vector<cell> values_;
};

std::string field_of(const cell& value) {
  switch (value.what) {
    case kind::number:
      return fmt::format("{}", value.number);
    case kind::text:
      return std::string(value.text);
    case kind::missing:
    case kind::impossible:
      break;
  }
  return ".";
}

class rules {
 public:
  rules(const data_source& source, csv_table& table, refusals& errors)
      : table_(table), errors_(errors), columns_(table.header.size()) {
    for (const formula_line& line : source.define) {
      for (const std::string& column : table.header)
        if (equal_ignoring_case(column, line.name))
          throw bad_input({.code = "E-DATA-HEADER",
                           .message = "data.define computes a column that the file already has",
                           .remedy = "give the computed column another name",
                           .file = table.file,
                           .row = table.header_line,
                           .column = line.name});
      defined_.emplace_back(formula_line{"define." + line.name, line.text}, table);
      table.header.push_back(line.name);
    }
    if (!source.keep.empty()) keep_.emplace(formula_line{"keep", source.keep}, table);
    if (!source.drop.empty()) drop_.emplace(formula_line{"drop", source.drop}, table);
    for (const row_formula& one : defined_) note(one);
    if (keep_) note(*keep_);
    if (drop_) note(*drop_);
  }

  // Whether the record stays; if so the computed columns are added to it, until the next call.
  bool take(csv_table::record& record) {
    row_.assign(columns_, {});
    for (const int column : used_)
      row_[static_cast<std::size_t>(column)] =
          of_text(record.fields[static_cast<std::size_t>(column)], column);
    for (row_formula& one : defined_) row_.push_back(one.of(row_));
    if (keep_ && !chosen(*keep_, record)) return false;
    if (drop_ && chosen(*drop_, record)) return false;
    for (std::size_t k = 0; k < defined_.size(); ++k) {
      const cell& value = row_[columns_ + k];
      if (value.what == kind::impossible) refuse(defined_[k], value, record);
    }
    computed_.clear();
    for (std::size_t k = 0; k < defined_.size(); ++k)
      computed_.push_back(field_of(row_[columns_ + k]));
    record.fields.insert(record.fields.end(), computed_.begin(), computed_.end());
    return true;
  }

 private:
  void note(const row_formula& one) {
    for (const int column : one.columns())
      if (static_cast<std::size_t>(column) < columns_) used_.push_back(column);
    std::sort(used_.begin(), used_.end());
    used_.erase(std::unique(used_.begin(), used_.end()), used_.end());
  }

  bool chosen(row_formula& rule, const csv_table::record& record) {
    const cell& value = rule.of(row_);
    if (cannot_count(value)) refuse(rule, value, record);
    return holds(value);
  }

  void refuse(const row_formula& formula, const cell& value, const csv_table::record& record) {
    const bool known = value.column >= 0;
    const auto at = static_cast<std::size_t>(value.column);
    errors_.add({.code = "E-DATA-NUMBER",
                 .message = known
                                ? fmt::format("'{}' is not a number", shortened(record.fields[at]))
                                : "a text where a number is expected",
                 .remedy = fmt::format(
                     "data.{} computes with this column; a text can only be compared, by == or !=",
                     formula.name()),
                 .file = table_.file,
                 .row = record.line,
                 .column = known ? table_.header[at] : "data." + formula.name()});
  }

  csv_table& table_;
  refusals& errors_;
  std::size_t columns_;  // of the file
  std::vector<row_formula> defined_;
  std::optional<row_formula> keep_;
  std::optional<row_formula> drop_;
  std::vector<int> used_;
  std::vector<cell> row_;
  std::vector<std::string> computed_;
};

// The rules of a model file with their names in applied_rules().
class rule_names {
 public:
  std::string of(const std::string& name, const std::string& text) {
    constexpr std::size_t digits = 12;
    // A NUL stands in no formula and in no name.
    return name + ":" + sha256(before_ + name + std::string(1, '\0') + text).substr(0, digits);
  }
  std::string of_column(const formula_line& line) {
    const std::string name = of("define." + line.name, line.text);
    before_ += name;
    return name;
  }

 private:
  std::string before_;  // the columns computed so far
};

// What is left to do on a table.
data_source not_applied(const data_source& source, const csv_table& table) {
  const auto at = std::find_if(
      table.header.begin(), table.header.end(),
      [](const std::string& column) { return equal_ignoring_case(column, applied_column); });
  if (at == table.header.end() || table.records() == 0) return source;
  const auto column = static_cast<std::size_t>(at - table.header.begin());
  const std::string done = " " + std::string(table.field(0, column)) + " ";
  for (std::size_t i = 1; i < table.records(); ++i)
    if (table.field(i, column) != table.field(0, column)) return source;
  const auto is_done = [&](const std::string& rule) {
    return done.find(" " + rule + " ") != std::string::npos;
  };
  data_source left = source;
  left.define.clear();
  rule_names names;
  for (const formula_line& line : source.define)
    if (!is_done(names.of_column(line))) left.define.push_back(line);
  if (is_done(names.of("keep", source.keep))) left.keep.clear();
  if (is_done(names.of("drop", source.drop))) left.drop.clear();
  return left;
}

}  // namespace

std::string applied_rules(const data_source& source) {
  std::string all;
  rule_names names;
  const auto add = [&](const std::string& rule) { all += (all.empty() ? "" : " ") + rule; };
  for (const formula_line& line : source.define) add(names.of_column(line));
  if (!source.keep.empty()) add(names.of("keep", source.keep));
  if (!source.drop.empty()) add(names.of("drop", source.drop));
  return all;
}

int apply_row_rules(const data_source& given, csv_table& table, refusals& errors) {
  const data_source source = not_applied(given, table);
  if (source.define.empty() && source.keep.empty() && source.drop.empty()) return 0;
  rules all(source, table, errors);
  csv_table changed;
  changed.file = table.file;
  changed.header_line = table.header_line;
  changed.header = table.header;
  changed.reserve(table.bytes(), table.records());
  for (std::size_t i = 0; i < table.records(); ++i) {
    csv_table::record record = table.at(i);
    if (all.take(record)) changed.add(record.line, record.fields);
  }
  const std::size_t left_out = table.records() - changed.records();
  table = std::move(changed);
  return static_cast<int>(left_out);
}

}  // namespace varda
