// SPDX-License-Identifier: Apache-2.0
#include "varda/model/equations/formula_program.h"

#include <fmt/format.h>

#include <algorithm>
#include <cmath>
#include <limits>
#include <map>
#include <set>

#include "varda/data/levels.h"
#include "varda/formula/expression.h"
#include "varda/model/equations/outcome_formulas.h"
#include "varda/support/finding.h"

namespace varda {

namespace {

using value = lane_graph::value;

// A formula and the place that an error is reported at.
struct formula_place {
  std::string section;
  const formula_line* line = nullptr;

  formula_error error(const char* code, std::string message, std::string remedy) const {
    return {section, line->name, code, std::move(message), std::move(remedy)};
  }
  expression read() const {
    try {
      return expression(line->text);
    } catch (const syntax_error& e) {
      throw error("E-MODEL-FORMULA", e.message, e.remedy);
    }
  }
};

std::string suggestion(const std::string& word, const std::vector<std::string>& known,
                       const char* what) {
  const std::string near = did_you_mean(word, known);
  return near.empty() ? fmt::format("{} are {}", what, fmt::join(known, ", "))
                      : "did you mean " + near + "?";
}

}  // namespace

class formula_program::compiler {
 public:
  compiler(formula_program& program, const equation_text& text) : program_(program), text_(text) {
    for (const std::string& name : formula_constants()) reserved_.insert(name);
    reserved_.insert({"t", "tad", "dose"});
    find_free_names();
    make_inputs();
    compile_formulas();
    differentiate();
    find_linear_system();
    write_sections();
  }

 private:
  template <class Visit>
  void for_each_formula(Visit visit) const {
    const auto all = [&](const char* section, const std::vector<formula_line>& lines) {
      for (const formula_line& line : lines) visit(formula_place{section, &line});
    };
    all("definitions", text_.definitions);
    all("sums", text_.sums);
    all("derivatives", text_.derivatives);
    all("initial", text_.initial);
    all("lag", text_.lag);
    all("bioavailability", text_.bioavailability);
    all("rate", text_.rate);
    all("duration", text_.duration);
    all("outputs", text_.outputs);
    for (const outcome_text& of : text_.outcomes)
      for (const formula_line& line : of.formulas) visit(formula_place{section_of(of), &line});
  }

  static std::string section_of(const outcome_text& of) { return "endpoint." + of.name; }
  // The observed value has a name in the one formula that needs it.
  static bool is_observed(const formula_place& at, const std::string& name) {
    return at.line->name == "log_likelihood" && name == "DV";
  }

  // The names of definitions and states must be new; every other name that a formula uses is a
  // parameter or else a covariate.
  void find_free_names() {
    const std::set<std::string> offered(text_.parameters.begin(), text_.parameters.end());
    std::set<std::string> own;
    for (const auto& [section, lines] : {std::pair{"definitions", &text_.definitions},
                                         {"sums", &text_.sums},
                                         {"derivatives", &text_.derivatives}})
      for (const formula_line& line : *lines) {
        const formula_place at{section, &line};
        if (!is_formula_name(line.name))
          throw at.error("E-MODEL-NAME", fmt::format("{} cannot be used in a formula", line.name),
                         "a name is a letter, then letters, digits and underscores");
        if (reserved_.contains(line.name))
          throw at.error("E-MODEL-NAME", fmt::format("the name {} has a meaning", line.name),
                         "choose another name");
        if (offered.contains(line.name) || !own.insert(line.name).second)
          throw at.error("E-MODEL-NAME", fmt::format("the name {} is used twice", line.name),
                         "parameters, definitions, sums and states need names of their own");
      }
    std::set<std::string> used;
    for_each_formula([&](const formula_place& at) {
      const expression formula = at.read();
      check_texts(at, formula, [&](const std::string& name) {
        return !reserved_.contains(name) && !own.contains(name) && !offered.contains(name) &&
               !is_observed(at, name);
      });
      for (const std::string& name : formula.names()) {
        if (reserved_.contains(name) || own.contains(name) || is_observed(at, name)) continue;
        if (used.insert(name).second && !offered.contains(name))
          program_.covariates_.push_back(name);
      }
    });
    for (const std::string& name : text_.parameters)
      if (used.contains(name)) program_.parameters_.push_back(name);
  }

  // Columns alone have texts, and nothing but a comparison can be done to one.
  template <class IsColumn>
  static void check_texts(const formula_place& at, const expression& formula, IsColumn is_column) {
    std::size_t compared = 0;
    for (const auto& [name, use] : formula.uses()) {
      compared += use.texts.size();
      if (!use.texts.empty() && !is_column(name))
        throw at.error("E-MODEL-FORMULA",
                       fmt::format("{} is a number and is compared with a text", name),
                       "columns of the data set may hold texts");
    }
    if (compared != formula.texts().size())
      throw at.error("E-MODEL-FORMULA", "a text where a number is expected",
                     "a text can be compared with a column, by == or !=");
  }

  value add_input(leaf_kind kind, std::size_t index, unsigned moves_with) {
    inputs_.push_back({kind, index});
    return graph_.input(static_cast<std::uint32_t>(inputs_.size() - 1), moves_with);
  }

  void make_inputs() {
    for (std::size_t k = 0; k < program_.parameters_.size(); ++k)
      symbols_[program_.parameters_[k]] =
          add_input(leaf_kind::parameter, k, lane_graph::on_nothing);
    for (std::size_t k = 0; k < program_.covariates_.size(); ++k)
      symbols_[program_.covariates_[k]] =
          add_input(leaf_kind::covariate, k, lane_graph::on_nothing);
    symbols_["dose"] = dose_ = add_input(leaf_kind::dose, 0, lane_graph::on_nothing);
    dose_time_ = add_input(leaf_kind::dose_time, 0, lane_graph::on_nothing);
    const value dosed = add_input(leaf_kind::dosed, 0, lane_graph::on_nothing);
    scale_ = add_input(leaf_kind::scale, 0, lane_graph::on_nothing);
    symbols_["t"] = time_ = add_input(leaf_kind::time, 0, lane_graph::on_time);
    // 0 before the first dose.
    symbols_["tad"] = graph_.apply(lane_code::multiply, dosed,
                                   graph_.apply(lane_code::subtract, time_, dose_time_));
    for (const formula_line& line : text_.derivatives) symbols_[line.name] = add_state(line.name);
    program_.integrates_hazards_ =
        std::any_of(text_.outcomes.begin(), text_.outcomes.end(),
                    [](const outcome_text& of) { return of.formula("hazard") != nullptr; });
    if (text_.derivatives.empty() && program_.integrates_hazards_) {
      add_state("the doses");
      derivatives_.push_back(graph_.number(0.0));
    }
    program_.dosed_states_ = program_.states_.size();
  }

  value add_state(const std::string& name) {
    state_inputs_.push_back(
        add_input(leaf_kind::state, program_.states_.size(), lane_graph::on_states));
    program_.states_.push_back(name);
    return state_inputs_.back();
  }

  // A sum is written out, dose by dose; those that have not been given add nothing. What it is made
  // of must belong to each dose: a definition with `dose` or `tad` in it belongs to the last one.
  void compile_sums() {
    if (text_.sums.empty()) return;
    program_.summed_doses_ = static_cast<std::size_t>(std::max(text_.summed_doses, 1));
    for (const formula_line& line : text_.sums) {
      const formula_place at{"sums", &line};
      const expression formula = at.read();
      for (const std::string& name : formula.names()) {
        const auto symbol = symbols_.find(name);
        if (name != "dose" && name != "tad" && symbol != symbols_.end() &&
            (depends_on({symbol->second}, dose_) || depends_on({symbol->second}, dose_time_)))
          throw at.error("E-MODEL-SYMBOL", fmt::format("{} belongs to the last dose", name),
                         "write its formula, with dose and tad, in the sum itself");
      }
    }
    const value last_dose = symbols_.at("dose");
    const value last_tad = symbols_.at("tad");
    std::vector<value> sums(text_.sums.size(), graph_.number(0.0));
    for (std::size_t k = 0; k < program_.summed_doses_; ++k) {
      const value given = add_input(leaf_kind::summed_dosed, k, lane_graph::on_nothing);
      const value begin = add_input(leaf_kind::summed_dose_time, k, lane_graph::on_nothing);
      symbols_["dose"] = add_input(leaf_kind::summed_dose, k, lane_graph::on_nothing);
      symbols_["tad"] =
          graph_.apply(lane_code::multiply, given, graph_.apply(lane_code::subtract, time_, begin));
      for (std::size_t s = 0; s < sums.size(); ++s) {
        const value one = compile({"sums", &text_.sums[s]}, false);
        sums[s] = graph_.apply(lane_code::add, sums[s],
                               graph_.apply(lane_code::select, given, one, graph_.number(0.0)));
      }
    }
    symbols_["dose"] = last_dose;
    symbols_["tad"] = last_tad;
    for (std::size_t s = 0; s < sums.size(); ++s) symbols_[text_.sums[s].name] = sums[s];
  }

  value compile(const formula_place& at, bool states_allowed) {
    const expression formula = at.read();
    std::vector<value> variables;
    for (const std::string& name : formula.names()) {
      if (is_observed(at, name)) {
        variables.push_back(row_.observed);
        continue;
      }
      const auto symbol = symbols_.find(name);
      if (symbol == symbols_.end())
        throw at.error("E-MODEL-SYMBOL", fmt::format("{} is used before it is defined", name),
                       "definitions are evaluated in the order of the file: move it up");
      if (!states_allowed && (graph_.at(symbol->second).moves_with & lane_graph::on_states) != 0U)
        throw at.error("E-MODEL-SYMBOL", fmt::format("the {} depends on a state", at.section),
                       "use parameters, covariates, t and dose here");
      variables.push_back(symbol->second);
    }
    std::vector<value> values;
    for (const expression::node& n : formula.nodes()) {
      switch (n.kind) {
        case expression::node_kind::number:
          values.push_back(graph_.number(n.value));
          break;
        case expression::node_kind::text:
          values.push_back(graph_.number(level_number(formula.texts()[n.name])));
          break;
        case expression::node_kind::name:
          values.push_back(variables[n.name]);
          break;
        case expression::node_kind::operation:
          values.push_back(graph_.apply(n.code, values[n.a], values[n.b], values[n.c]));
          break;
      }
    }
    return values.back();
  }

  void compile_formulas() {
    for (const formula_line& line : text_.definitions)
      symbols_[line.name] = compile({"definitions", &line}, true);
    compile_sums();
    for (const formula_line& line : text_.derivatives)
      derivatives_.push_back(compile({"derivatives", &line}, true));
    for (const formula_line& line : text_.outputs)
      add_output(line.name, compile({"outputs", &line}, true));
    program_.named_outputs_ = outputs_.size();
    if (!text_.outcomes.empty()) compile_outcomes();
    const auto initial = compile_by_state("initial", text_.initial);
    for (std::size_t s = 0; s < initial.size(); ++s)
      if (initial[s]) {
        initial_.push_back(*initial[s]);
        program_.initial_states_.push_back(s);
      }
    dosing_ = {compile_by_state("lag", text_.lag),
               compile_by_state("bioavailability", text_.bioavailability),
               compile_by_state("rate", text_.rate), compile_by_state("duration", text_.duration)};
  }

  void add_output(const std::string& name, value of) {
    outputs_.push_back(of);
    program_.output_names_.push_back(name);
    const lane_graph::node& n = graph_.at(of);
    program_.unknown_outputs_.push_back(n.kind == lane_graph::node_kind::number &&
                                        std::isnan(n.number));
  }

  void compile_outcomes() {
    row_.observed = add_input(leaf_kind::observed, 0, lane_graph::on_time);
    row_.log_factorial = add_input(leaf_kind::log_factorial, 0, lane_graph::on_time);
    row_.censoring = add_input(leaf_kind::censoring, 0, lane_graph::on_time);
    std::size_t normal = 0;
    for (const outcome_text& of : text_.outcomes) {
      if (of.kind == endpoint_kind::normal) {
        program_.first_outputs_.push_back(program_.named_outputs_ == 1 ? 0 : normal);
        ++normal;
        continue;
      }
      program_.first_outputs_.push_back(outputs_.size());
      for (const value one : outcome_of(of)) add_output(of.name, one);
    }
  }

  value compile(const outcome_text& of, const std::string& key, bool states_allowed = true) {
    return compile({section_of(of), of.formula(key)}, states_allowed);
  }

  outcome_graph outcome_of(const outcome_text& of) {
    switch (of.kind) {
      case endpoint_kind::poisson:
      case endpoint_kind::negative_binomial:
      case endpoint_kind::zero_inflated_poisson:
      case endpoint_kind::zero_inflated_negative_binomial: {
        const value mean = compile(of, "mean");
        std::optional<value> dispersion, share;
        if (of.formula("dispersion") != nullptr) dispersion = compile(of, "dispersion");
        if (of.formula("zero_inflation") != nullptr) share = compile(of, "zero_inflation");
        return count_graph(graph_, row_, mean, dispersion ? &*dispersion : nullptr,
                           share ? &*share : nullptr);
      }
      case endpoint_kind::binary:
        if (of.formula("probability") != nullptr)
          return binary_graph(graph_, row_, compile(of, "probability"));
        return binary_graph(graph_, row_, of.link, compile(of, "linear_predictor"));
      case endpoint_kind::ordinal: {
        std::vector<value> thresholds;
        for (const formula_line& line : of.formulas)
          if (line.name == "thresholds")
            thresholds.push_back(compile({section_of(of), &line}, true));
        return ordinal_graph(graph_, row_, of.link, of.levels, compile(of, "linear_predictor"),
                             thresholds);
      }
      case endpoint_kind::event:
        return event_graph(graph_, row_, event_of(of));
      case endpoint_kind::log_likelihood: {
        const value unknown = graph_.number(std::numeric_limits<double>::quiet_NaN());
        return {compile(of, "log_likelihood"),
                of.formula("prediction") != nullptr ? compile(of, "prediction") : unknown};
      }
      case endpoint_kind::normal:
        break;
    }
    return {};
  }

  event_terms event_of(const outcome_text& of) {
    if (of.formula("hazard") != nullptr) {
      const value hazard = compile(of, "hazard");
      const std::size_t state = program_.states_.size();
      const value total = add_state("the cumulative hazard of " + of.name);
      // What is integrated is in the subject's scale, like the error that the solver allows. A
      // hazard below 0 has no meaning.
      const value scaled = graph_.apply(lane_code::multiply, hazard, scale_);
      derivatives_.push_back(
          graph_.apply(lane_code::select, graph_.apply(lane_code::less, hazard, graph_.number(0.0)),
                       graph_.number(std::numeric_limits<double>::quiet_NaN()), scaled));
      const auto by_scale = [&](value v) { return graph_.apply(lane_code::divide, v, scale_); };
      return {hazard, by_scale(total),
              by_scale(add_input(leaf_kind::begin_state, state, lane_graph::on_states)),
              by_scale(add_input(leaf_kind::limit_state, state, lane_graph::on_states))};
    }
    const formula_place place{section_of(of), of.formula("cumulative_hazard")};
    const value total = compile(place, false);
    if (depends_on({total}, dose_) || depends_on({total}, dose_time_))
      throw place.error("E-MODEL-SYMBOL", "a cumulative hazard in closed form knows no doses",
                        "give the hazard instead, which is integrated");
    const auto at = [&](leaf_kind when) {
      return graph_.with(total, time_, add_input(when, 0, lane_graph::on_time));
    };
    return {graph_.derivative(total, time_), total, at(leaf_kind::begin_time),
            at(leaf_kind::limit_time)};
  }

  std::vector<std::optional<value>> compile_by_state(const char* section,
                                                     const std::vector<formula_line>& lines) {
    std::vector<std::optional<value>> all(program_.states_.size());
    for (const formula_line& line : lines) {
      const auto state = std::find(program_.states_.begin(), program_.states_.end(), line.name);
      const formula_place at{section, &line};
      if (state == program_.states_.end())
        throw at.error("E-MODEL-SYMBOL", fmt::format("{} is no state", line.name),
                       suggestion(line.name, program_.states_, "the states"));
      all[static_cast<std::size_t>(state - program_.states_.begin())] = compile(at, false);
    }
    return all;
  }

  void differentiate() {
    for (std::size_t s = 0; s < derivatives_.size(); ++s) {
      for (std::size_t k = 0; k < state_inputs_.size(); ++k) {
        const value entry = graph_.derivative(derivatives_[s], state_inputs_[k]);
        if (graph_.is_number(entry, 0.0)) continue;
        program_.jacobian_entries_.emplace_back(s, k);
        entries_.push_back(entry);
      }
      const value slope = graph_.derivative(derivatives_[s], time_);
      if (graph_.is_number(slope, 0.0)) continue;
      program_.time_slopes_.push_back(s);
      time_slopes_.push_back(slope);
    }
  }

  void find_linear_system() {
    const auto constant = [&](value v) { return graph_.at(v).moves_with == 0U; };
    const auto is_free = [&](value v) { return constant(graph_.without_states(v)); };
    if (derivatives_.empty() || !time_slopes_.empty() ||
        !std::all_of(entries_.begin(), entries_.end(), constant) ||
        !std::all_of(derivatives_.begin(), derivatives_.end(), is_free))
      return;
    const std::size_t n = derivatives_.size();
    linear_system& system = program_.linear_.emplace();
    system.a.resize(n * n);
    system.b.resize(n);
    for (std::size_t e = 0; e < entries_.size(); ++e) {
      const auto [row, column] = program_.jacobian_entries_[e];
      system.a[row * n + column] = constant_for(entries_[e]);
    }
    for (std::size_t s = 0; s < n; ++s) {
      const value rest = graph_.without_states(derivatives_[s]);
      if (!graph_.is_number(rest, 0.0)) system.b[s] = constant_for(rest);
    }
  }

  std::size_t constant_for(value v) {
    const auto [place, added] = constants_.try_emplace(v, constant_values_.size());
    if (added) constant_values_.push_back(v);
    return place->second;
  }

  // What the sections need of values that do not move.
  void gather_constants(value v) {
    if (!visited_.insert(v).second) return;
    const lane_graph::node& n = graph_.at(v);
    if (n.kind == lane_graph::node_kind::number) return;
    if (n.moves_with == 0U) {
      constant_for(v);
    } else if (n.kind == lane_graph::node_kind::operation) {
      for (std::size_t k = 0; k < lane_graph::operands_of(n.code); ++k)
        gather_constants(n.operands[k]);
    }
  }

  bool depends_on(const std::vector<value>& values, value input) const {
    std::set<value> seen;
    std::vector<value> open = values;
    while (!open.empty()) {
      const value v = open.back();
      open.pop_back();
      if (v == input) return true;
      const lane_graph::node& n = graph_.at(v);
      if (n.kind != lane_graph::node_kind::operation || !seen.insert(v).second) continue;
      for (std::size_t k = 0; k < lane_graph::operands_of(n.code); ++k)
        open.push_back(n.operands[k]);
    }
    return false;
  }

  compiled_section write(const std::vector<value>& results, bool from_constants) const {
    const auto is_known = [&](value v) { return from_constants && constants_.contains(v); };
    compiled_section section{write_section(graph_, results, is_known), {}};
    for (const value v : section.code.leaves) {
      const lane_graph::node& n = graph_.at(v);
      const auto constant = constants_.find(v);
      if (from_constants && constant != constants_.end())
        section.leaves.push_back({leaf_kind::constant, constant->second});
      else if (n.kind == lane_graph::node_kind::number)
        section.leaves.push_back({leaf_kind::number, 0, n.number});
      else
        section.leaves.push_back(inputs_[n.input]);
    }
    return section;
  }

  void write_sections() {
    std::vector<value> with_jacobian = derivatives_;
    with_jacobian.insert(with_jacobian.end(), entries_.begin(), entries_.end());
    with_jacobian.insert(with_jacobian.end(), time_slopes_.begin(), time_slopes_.end());
    for (const value v : with_jacobian) gather_constants(v);
    for (const value v : outputs_) gather_constants(v);

    program_.constants_know_dose_ = depends_on(constant_values_, dose_);
    program_.constants_know_dose_time_ = depends_on(constant_values_, dose_time_);
    program_.constant_section_ = write(constant_values_, false);
    program_.derivatives_ = write(derivatives_, true);
    program_.jacobian_ = write(with_jacobian, true);
    for (const value v : outputs_) program_.outputs_.push_back(write({v}, true));
    program_.initial_ = write(initial_, false);
    for (std::size_t p = 0; p < dose_properties; ++p)
      for (const std::optional<value>& v : dosing_[p]) {
        std::optional<compiled_section>& section = program_.dosing_[p].emplace_back();
        if (v) section = write({*v}, false);
      }
  }

  formula_program& program_;
  const equation_text& text_;
  lane_graph graph_;
  std::vector<leaf> inputs_;
  std::map<std::string, value> symbols_;
  std::set<std::string> reserved_;
  value time_ = 0;
  value dose_ = 0;
  value dose_time_ = 0;
  value scale_ = 0;
  outcome_row row_{};
  std::vector<value> state_inputs_;
  std::vector<value> derivatives_;
  std::vector<value> outputs_;
  std::vector<value> initial_;
  std::array<std::vector<std::optional<value>>, dose_properties> dosing_;
  std::vector<value> entries_;
  std::vector<value> time_slopes_;
  std::map<value, std::size_t> constants_;
  std::vector<value> constant_values_;
  std::set<value> visited_;
};

formula_program::formula_program(const equation_text& text) {
  compiler(*this, text);
}

}  // namespace varda
