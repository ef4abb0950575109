// SPDX-License-Identifier: Apache-2.0
#include "varda/model/equations/formula_program.h"

#include <fmt/format.h>

#include <algorithm>
#include <set>

#include "varda/support/finding.h"

namespace varda {

namespace {

enum built_in : std::size_t { slot_t, slot_tad, slot_dose, built_ins };

// A formula and the place that an error is reported at.
struct formula_place {
  const char* section = nullptr;
  const formula_line* line = nullptr;

  formula_error error(const char* code, std::string message, std::string remedy) const {
    return {section, line->name, code, std::move(message), std::move(remedy)};
  }
};

std::vector<std::string> names_in(const formula_place& at) {
  try {
    return expression::names_in(at.line->text);
  } catch (const syntax_error& e) {
    throw at.error("E-MODEL-FORMULA", e.message, e.remedy);
  }
}

}  // namespace

// Fills a program: first the symbols and their slots, then the formulas, since the table of values
// must not move once a formula points into it.
class formula_program::compiler {
 public:
  compiler(formula_program& program, const equation_text& text) : program_(program), text_(text) {
    for (const char* name : {"t", "tad"}) add_symbol(name, on_time);
    add_symbol("dose", on_nothing);
    for (const std::string& name : formula_constants()) reserved_.insert(name);
    reserved_.insert({"t", "tad", "dose"});
    find_free_names();
    for (const std::string& name : program_.parameters_)
      program_.parameter_slots_.push_back(add_symbol(name, on_nothing));
    for (const std::string& name : program_.covariates_)
      program_.covariate_slots_.push_back(add_symbol(name, on_nothing));
    for (const formula_line& line : text.definitions) add_symbol(line.name, on_nothing);
    program_.first_state_ = slots_;
    for (const formula_line& line : text.derivatives) {
      add_symbol(line.name, on_states);
      program_.states_.push_back(line.name);
    }
    // Values other than 0, since the parser tries a formula as it compiles it.
    program_.values_.assign(slots_, 1.0);
    compile_all();
  }

 private:
  std::size_t add_symbol(const std::string& name, unsigned moves_with) {
    symbols_[name] = {slots_, moves_with, {}};
    return slots_++;
  }

  template <class Visit>
  void for_each_formula(Visit visit) const {
    const auto all = [&](const char* section, const std::vector<formula_line>& lines) {
      for (const formula_line& line : lines) visit(formula_place{section, &line});
    };
    all("definitions", text_.definitions);
    all("derivatives", text_.derivatives);
    all("initial", text_.initial);
    all("lag", text_.lag);
    all("bioavailability", text_.bioavailability);
    all("rate", text_.rate);
    all("duration", text_.duration);
    all("outputs", text_.outputs);
  }

  // The names of definitions and states must be new; every other name that a formula uses is a
  // parameter or else a covariate.
  void find_free_names() {
    const std::set<std::string> offered(text_.parameters.begin(), text_.parameters.end());
    std::set<std::string> own;
    for (const auto& [section, lines] :
         {std::pair{"definitions", &text_.definitions}, {"derivatives", &text_.derivatives}})
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
                         "parameters, definitions and states need names of their own");
      }
    std::set<std::string> used;
    for_each_formula([&](const formula_place& at) {
      for (const std::string& name : names_in(at)) {
        if (reserved_.contains(name) || own.contains(name)) continue;
        if (used.insert(name).second && !offered.contains(name))
          program_.covariates_.push_back(name);
      }
    });
    for (const std::string& name : text_.parameters)
      if (used.contains(name)) program_.parameters_.push_back(name);
  }

  void compile_all() {
    for (const formula_line& line : text_.definitions) {
      compiled c = compile({"definitions", &line}, on_time | on_states);
      symbol& named = symbols_.at(line.name);
      named.moves_with = c.moves_with;
      named.definition = program_.definitions_.size();
      c.slot = named.slot;
      program_.definitions_.push_back(std::move(c));
    }
    std::set<std::size_t> needs;
    for (const formula_line& line : text_.derivatives) {
      compiled c = compile({"derivatives", &line}, on_time | on_states);
      needs.insert(c.needs.begin(), c.needs.end());
      if ((c.moves_with & on_time) != 0U) program_.derivatives_depend_on_time_ = true;
      program_.derivatives_.push_back(std::move(c));
    }
    program_.derivative_needs_.assign(needs.begin(), needs.end());
    for (const formula_line& line : text_.outputs) {
      program_.outputs_.push_back(compile({"outputs", &line}, on_time | on_states));
      program_.output_names_.push_back(line.name);
    }
    program_.initial_ = compile_by_state("initial", text_.initial);
    program_.dosing_ = {compile_by_state("lag", text_.lag),
                        compile_by_state("bioavailability", text_.bioavailability),
                        compile_by_state("rate", text_.rate),
                        compile_by_state("duration", text_.duration)};
  }

  std::vector<std::optional<compiled>> compile_by_state(const char* section,
                                                        const std::vector<formula_line>& lines) {
    std::vector<std::optional<compiled>> all(program_.states_.size());
    for (const formula_line& line : lines) {
      const auto state = std::find(program_.states_.begin(), program_.states_.end(), line.name);
      const formula_place at{section, &line};
      if (state == program_.states_.end())
        throw at.error("E-MODEL-SYMBOL", fmt::format("{} is no state", line.name),
                       suggestion(line.name, program_.states_, "the states"));
      all[static_cast<std::size_t>(state - program_.states_.begin())] = compile(at, on_time);
    }
    return all;
  }

  static std::string suggestion(const std::string& word, const std::vector<std::string>& known,
                                const char* what) {
    const std::string near = did_you_mean(word, known);
    return near.empty() ? fmt::format("{} are {}", what, fmt::join(known, ", "))
                        : "did you mean " + near + "?";
  }

  compiled compile(const formula_place& at, unsigned allowed) {
    unsigned moves_with = on_nothing;
    std::set<std::size_t> needs;
    for (const std::string& name : names_in(at)) {
      const symbol& used = symbols_.at(name);
      const bool defined_later =
          used.slot >= definition_slot(0) && used.slot < program_.first_state_ && !used.definition;
      if (defined_later)
        throw at.error("E-MODEL-SYMBOL", fmt::format("{} is used before it is defined", name),
                       "definitions are evaluated in the order of the file: move it up");
      moves_with |= used.moves_with;
      if (!used.definition || used.moves_with == on_nothing) continue;
      const compiled& definition = program_.definitions_[*used.definition];
      needs.insert(definition.needs.begin(), definition.needs.end());
      needs.insert(*used.definition);
    }
    if ((moves_with & ~allowed) != 0U)
      throw at.error("E-MODEL-SYMBOL", fmt::format("the {} depends on a state", at.section),
                     "use parameters, covariates, t and dose here");
    try {
      return {expression(at.line->text,
                         [&](const std::string& name) {
                           return &program_.values_[symbols_.at(name).slot];
                         }),
              {needs.begin(), needs.end()},
              moves_with};
    } catch (const syntax_error& e) {
      throw at.error("E-MODEL-FORMULA", e.message, e.remedy);
    }
  }

  std::size_t definition_slot(std::size_t k) const {
    return program_.first_state_ - text_.definitions.size() + k;
  }

  formula_program& program_;
  const equation_text& text_;
  std::map<std::string, symbol> symbols_;
  std::set<std::string> reserved_;
  std::size_t slots_ = 0;
};

formula_program::formula_program(const equation_text& text) {
  compiler(*this, text);
}

void formula_program::enter_segment(const subject& who, int segment, const parameter_path& p,
                                    const std::vector<int>& positions) {
  const std::span<const double> parameters = p.in_segment(segment);
  for (std::size_t k = 0; k < parameter_slots_.size(); ++k)
    values_[parameter_slots_[k]] = parameters[k];
  const std::vector<double>& covariates =
      who.segments[static_cast<std::size_t>(segment)].covariates;
  for (std::size_t k = 0; k < covariate_slots_.size(); ++k)
    values_[covariate_slots_[k]] = covariates[static_cast<std::size_t>(positions[k])];
  stale_ = true;
}

void formula_program::set_dose(double time, double amount) {
  dosed_ = true;
  dose_time_ = time;
  values_[slot_dose] = amount;
  stale_ = true;
}

void formula_program::forget_doses() {
  set_dose(0.0, 0.0);
  dosed_ = false;
}

void formula_program::refresh() {
  for (const compiled& definition : definitions_)
    if (definition.moves_with == on_nothing) values_[definition.slot] = definition.formula();
  stale_ = false;
}

void formula_program::set_clock(double t) {
  values_[slot_t] = t;
  values_[slot_tad] = dosed_ ? t - dose_time_ : 0.0;
  if (stale_) refresh();
}

void formula_program::evaluate(const std::vector<std::size_t>& needs) {
  for (const std::size_t k : needs) {
    const compiled& definition = definitions_[k];
    values_[definition.slot] = definition.formula();
  }
}

double formula_program::value_of(const compiled& what) {
  evaluate(what.needs);
  return what.formula();
}

void formula_program::derivatives(double t, const double* x, double* dxdt) {
  set_clock(t);
  std::copy(x, x + states_.size(), &values_[first_state_]);
  evaluate(derivative_needs_);
  for (std::size_t s = 0; s < derivatives_.size(); ++s) dxdt[s] = derivatives_[s].formula();
}

double formula_program::output(std::size_t k, double t, std::span<const double> x) {
  set_clock(t);
  std::copy(x.begin(), x.end(), values_.begin() + static_cast<std::ptrdiff_t>(first_state_));
  return value_of(outputs_[k]);
}

double formula_program::initial(std::size_t state, double t) {
  set_clock(t);
  return initial_[state] ? value_of(*initial_[state]) : 0.0;
}

double formula_program::of_dose(dose_property what, std::size_t state, double t) {
  set_clock(t);
  return value_of(*dosing_[static_cast<std::size_t>(what)][state]);
}

}  // namespace varda
