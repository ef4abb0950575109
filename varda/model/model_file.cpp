// SPDX-License-Identifier: Apache-2.0
#include "varda/model/model_file.h"

#include <fmt/format.h>

#include <toml++/toml.h>
#include <Eigen/Cholesky>
#include <algorithm>
#include <cmath>
#include <filesystem>
#include <optional>
#include <set>
#include <utility>

#include "varda/model/structural_model.h"
#include "varda/support/text.h"

namespace varda {

namespace {

int line_of(const toml::node& node) {
  return static_cast<int>(node.source().begin.line);
}

std::string quoted_list(const std::vector<std::string>& words) {
  return fmt::format("\"{}\"", fmt::join(words, "\", \""));
}

// A table of the file that knows its place: every key is asked for once, under the type it must
// have, and what nobody asked for is refused at the end with the key that was probably meant.
class section {
 public:
  section(const std::string& file, const toml::table& table, std::string path)
      : file_(file), table_(table), path_(std::move(path)) {}

  bad_input error(const std::string& code, const std::string& key, const std::string& message,
                  const std::string& remedy) const {
    const toml::node* node = table_.get(key);
    return bad_input({.code = code,
                      .message = message,
                      .remedy = remedy,
                      .file = file_,
                      .row = node != nullptr ? line_of(*node) : line_of(table_),
                      .column = full_key(key)});
  }

  bool has(const std::string& key) {
    asked_.insert(key);
    return table_.contains(key);
  }

  std::optional<double> number(const std::string& key) {
    const toml::node* node = ask(key);
    if (node == nullptr) return std::nullopt;
    const auto value = node->value<double>();  // takes integers too
    if (!value || !node->is_number() || !std::isfinite(*value))
      throw error("E-MODEL-TYPE", key, "a finite number is expected",
                  "write a number without quotes");
    return *value;
  }

  // The one kind of number that may be infinite: TOML's inf is no bound at all.
  double bound_or(const std::string& key, double fallback) {
    const toml::node* node = ask(key);
    if (node != nullptr && node->is_floating_point() && std::isinf(*node->value<double>()))
      return *node->value<double>();
    return number_or(key, fallback);
  }

  double number_or(const std::string& key, double fallback) {
    return number(key).value_or(fallback);
  }

  double needed_number(const std::string& key, const std::string& what) {
    const auto value = number(key);
    if (!value) throw missing(key, what);
    return *value;
  }

  int whole_number_or(const std::string& key, int fallback, int least, int most) {
    const toml::node* node = ask(key);
    if (node == nullptr) return fallback;
    const auto value = node->value<std::int64_t>();
    if (!value || !node->is_integer())
      throw error("E-MODEL-TYPE", key, "a whole number is expected",
                  "write a whole number without quotes");
    if (*value < least || *value > most)
      throw error("E-MODEL-RANGE", key, fmt::format("{} is out of range", *value),
                  fmt::format("it must lie between {} and {}", least, most));
    return static_cast<int>(*value);
  }

  bool flag_or(const std::string& key, bool fallback) {
    const toml::node* node = ask(key);
    if (node == nullptr) return fallback;
    const auto value = node->value<bool>();
    if (!value || !node->is_boolean())
      throw error("E-MODEL-TYPE", key, "true or false is expected", "write true or false");
    return *value;
  }

  std::optional<std::string> text(const std::string& key) {
    const toml::node* node = ask(key);
    if (node == nullptr) return std::nullopt;
    const auto value = node->value<std::string>();
    if (!value) throw error("E-MODEL-TYPE", key, "a text is expected", "write it in double quotes");
    return *value;
  }

  std::string needed_text(const std::string& key, const std::string& what) {
    const auto value = text(key);
    if (!value) throw missing(key, what);
    return *value;
  }

  // One of the words; its position.
  std::size_t word_or(const std::string& key, std::size_t fallback,
                      const std::vector<std::string>& words) {
    const auto value = text(key);
    if (!value) return fallback;
    const auto found = std::find(words.begin(), words.end(), *value);
    if (found == words.end()) throw unknown_word(key, *value, words);
    return static_cast<std::size_t>(found - words.begin());
  }

  bad_input unknown_word(const std::string& key, const std::string& value,
                         const std::vector<std::string>& words) const {
    const std::string near = did_you_mean(value, words);
    return error("E-MODEL-WORD", key, fmt::format("\"{}\" is not known here", value),
                 near.empty() ? "it can be " + quoted_list(words)
                              : fmt::format("did you mean \"{}\"?", near));
  }

  std::optional<section> table(const std::string& key) {
    const toml::node* node = ask(key);
    if (node == nullptr) return std::nullopt;
    if (!node->is_table())
      throw error("E-MODEL-TYPE", key, "a table is expected", "write [" + full_key(key) + "]");
    return section(file_, *node->as_table(), full_key(key));
  }

  section needed_table(const std::string& key, const std::string& what) {
    auto found = table(key);
    if (!found) throw missing(key, what);
    return *found;
  }

  // The tables of an array of tables, empty when there is none.
  std::vector<section> tables(const std::string& key) {
    const toml::node* node = ask(key);
    std::vector<section> all;
    if (node == nullptr) return all;
    const toml::array* array = node->as_array();
    const bool right =
        array != nullptr &&
        std::all_of(array->begin(), array->end(), [](const toml::node& n) { return n.is_table(); });
    if (!right)
      throw error("E-MODEL-TYPE", key, "a list of tables is expected",
                  "write " + key + " = [ { ... } ]");
    for (const toml::node& n : *array)
      all.emplace_back(file_, *n.as_table(), fmt::format("{}[{}]", full_key(key), all.size() + 1));
    return all;
  }

  std::vector<std::string> texts(const std::string& key) {
    const toml::node* node = ask(key);
    std::vector<std::string> all;
    const toml::array* array = node == nullptr ? nullptr : node->as_array();
    if (array == nullptr || array->empty())
      throw error("E-MODEL-TYPE", key, "a list of names is expected",
                  "write " + key + " = [\"CL\", \"V\"]");
    for (const toml::node& n : *array) {
      if (!n.is_string())
        throw error("E-MODEL-TYPE", key, "a list of names is expected",
                    "write each name in double quotes");
      all.push_back(*n.value<std::string>());
    }
    return all;
  }

  // The numbers of a list, nothing when it is no list of finite numbers.
  std::vector<double> numbers(const std::string& key) {
    const toml::node* node = ask(key);
    return node == nullptr ? std::vector<double>() : finite_numbers(*node);
  }

  std::vector<std::vector<double>> rows(const std::string& key) {
    const auto wrong = [&] {
      return error("E-MODEL-TYPE", key, "a matrix is expected, a list of rows",
                   "write " + key + " = [[0.3], [0.01, 0.2]]");
    };
    const toml::node* node = ask(key);
    const toml::array* array = node == nullptr ? nullptr : node->as_array();
    if (array == nullptr) throw wrong();
    std::vector<std::vector<double>> all;
    for (const toml::node& row : *array) {
      all.push_back(finite_numbers(row));
      if (all.back().empty()) throw wrong();
    }
    return all;
  }

  std::vector<std::string> keys() const {
    std::vector<std::string> all;
    for (const auto& [key, node] : table_) all.emplace_back(key.str());
    return all;
  }
  // Makes a key known before it is read.
  void accept(const std::string& key) { asked_.insert(key); }

  bool is_number(const std::string& key) const {
    const toml::node* node = table_.get(key);
    return node != nullptr && node->is_number();
  }

  void refuse_leftovers() const {
    for (const auto& [key, node] : table_) {
      const std::string name(key.str());
      if (asked_.contains(name)) continue;
      const std::vector<std::string> known(asked_.begin(), asked_.end());
      const std::string near = did_you_mean(name, known);
      throw error("E-MODEL-KEY", name, "this key is not known",
                  near.empty() ? "the keys here are " + fmt::format("{}", fmt::join(known, ", "))
                               : "did you mean " + near + "?");
    }
  }

 private:
  const toml::node* ask(const std::string& key) {
    asked_.insert(key);
    return table_.get(key);
  }
  static std::vector<double> finite_numbers(const toml::node& list) {
    std::vector<double> all;
    if (!list.is_array()) return all;
    for (const toml::node& entry : *list.as_array()) {
      if (!entry.is_number() || !std::isfinite(*entry.value<double>())) return {};
      all.push_back(*entry.value<double>());
    }
    return all;
  }
  // A key that is not there may stand in the file with a slip of the pen.
  bad_input missing(const std::string& key, const std::string& what) const {
    for (const std::string& other : keys())
      if (!asked_.contains(other) && !did_you_mean(other, {key}).empty())
        return error("E-MODEL-KEY", other, "this key is not known", "did you mean " + key + "?");
    return error("E-MODEL-MISSING", key, "this key is missing", "it gives " + what);
  }
  std::string full_key(const std::string& key) const {
    if (path_.empty() || key.empty()) return path_ + key;
    return path_ + "." + key;
  }

  const std::string& file_;
  const toml::table& table_;
  std::string path_;
  std::set<std::string> asked_;
};

constexpr double infinite = std::numeric_limits<double>::infinity();

void read_bounds(section& from, double& lower, double& upper) {
  lower = from.bound_or("lower", -infinite);
  upper = from.bound_or("upper", infinite);
  if (lower >= upper)
    throw from.error("E-MODEL-RANGE", "lower", "the lower bound is not below the upper one",
                     "exchange the two, or use fixed = true for a given value");
}

void check_start(const section& from, double start, double lower, double upper) {
  if (start < lower || start > upper)
    throw from.error("E-MODEL-RANGE", "start",
                     fmt::format("the start value {} lies outside its bounds", start),
                     "move it between the bounds");
}

covariate_effect read_effect(section from, const parameter& of) {
  covariate_effect effect;
  effect.covariate = from.needed_text("column", "the column of the covariate");
  const std::vector<std::string> forms = {"power", "exponential", "linear"};
  const bool log_normal = of.law == distribution::log_normal;
  effect.form = static_cast<effect_form>(from.word_or("effect", log_normal ? 0 : 2, forms));
  if (log_normal == (effect.form == effect_form::linear))
    throw from.error("E-MODEL-EFFECT", "effect",
                     "this form does not suit the parameter's distribution",
                     "use power or exponential for log-normal, linear for normal and logit-normal");
  effect.center = from.number_or("center", effect.form == effect_form::power ? 1.0 : 0.0);
  if (effect.form == effect_form::power && !(effect.center > 0.0))
    throw from.error("E-MODEL-RANGE", "center", "the center of a power effect must be above 0",
                     "use a typical value of the covariate");
  effect.start = from.number_or("start", 0.0);
  effect.fixed = from.flag_or("fixed", false);
  effect.name = from.text("name").value_or(of.name + "_" + effect.covariate);
  read_bounds(from, effect.lower, effect.upper);
  check_start(from, effect.start, effect.lower, effect.upper);
  from.refuse_leftovers();
  return effect;
}

void read_range(section& from, parameter& p) {
  if (!from.has("range")) return;
  const auto ends = from.numbers("range");
  if (ends.size() != 2 || !(ends[0] < ends[1]))
    throw from.error("E-MODEL-TYPE", "range", "two increasing numbers are expected",
                     "write range = [0, 1]");
  p.range_lower = ends[0];
  p.range_upper = ends[1];
}

parameter read_parameter(const std::string& name, section from) {
  parameter p;
  p.name = name;
  p.law = static_cast<distribution>(
      from.word_or("distribution", 0, {"log-normal", "normal", "logit-normal", "none"}));
  p.start = from.needed_number("start", "the start value");
  p.fixed = from.flag_or("fixed", false);
  if (p.law == distribution::logit_normal) {
    read_range(from, p);
    if (p.start <= p.range_lower || p.start >= p.range_upper)
      throw from.error(
          "E-MODEL-RANGE", "start",
          fmt::format("the start value {} lies outside the range of the logit", p.start),
          "move it inside the range, or widen the range");
  } else {
    read_bounds(from, p.lower, p.upper);
    check_start(from, p.start, p.lower, p.upper);
  }
  if (p.law == distribution::log_normal && !(p.start > 0.0))
    throw from.error("E-MODEL-RANGE", "start", "a log-normal parameter must start above 0",
                     "change the start value or the distribution");
  for (section& effect : from.tables("covariates")) {
    if (p.law == distribution::none)
      throw from.error("E-MODEL-EFFECT", "covariates",
                       "a parameter without a random effect cannot have covariate effects",
                       "give it a distribution and a variance");
    p.effects.push_back(read_effect(effect, p));
  }
  from.refuse_leftovers();
  return p;
}

void read_parameters(section from, model_file& file) {
  const auto structure = make_structural_model(file.structure);
  const std::vector<std::string>& names = structure->parameter_names();
  file.data.compartments = structure->dose_compartments();
  // First, so that a misspelt name is not reported as a missing one.
  for (const std::string& name : names) from.accept(name);
  from.refuse_leftovers();
  for (const std::string& name : names) {
    const std::string what = fmt::format("a parameter of the model \"{}\"", file.structure);
    file.parameters.push_back(read_parameter(name, from.needed_table(name, what)));
  }
  if (std::all_of(file.parameters.begin(), file.parameters.end(),
                  [](const parameter& p) { return p.law == distribution::none; }))
    throw from.error("E-MODEL-NO-RANDOM-EFFECT", "", "the model has no random effect",
                     "give at least one parameter a distribution and a variance");

  std::set<std::string> seen(names.begin(), names.end());
  seen.insert({"additive", "proportional"});  // names of the residual deviations in the results
  for (const parameter& p : file.parameters) {
    std::set<std::pair<std::string, effect_form>> effects;
    for (const covariate_effect& e : p.effects) {
      if (!seen.insert(e.name).second)
        throw from.error("E-MODEL-NAME", p.name, fmt::format("the name {} is used twice", e.name),
                         "give the covariate effect a name of its own");
      // Two such coefficients could only be told apart by their sum.
      if (!effects.insert({lower_case(e.covariate), e.form}).second)
        throw from.error("E-MODEL-EFFECT", p.name,
                         fmt::format("the effect of {} stands twice", e.covariate),
                         "leave one of the two");
      if (std::find(file.data.covariates.begin(), file.data.covariates.end(), e.covariate) ==
          file.data.covariates.end())
        file.data.covariates.push_back(e.covariate);
    }
  }
}

bool positive_definite(const std::vector<double>& matrix, std::size_t order) {
  const auto n = static_cast<Eigen::Index>(order);
  const Eigen::Map<const Eigen::MatrixXd> m(matrix.data(), n, n);
  return Eigen::LLT<Eigen::MatrixXd>(m).info() == Eigen::Success;
}

omega_block read_variance(section& from, const std::string& name) {
  omega_block block;
  block.names = {name};
  double variance = 0.0;
  if (from.is_number(name)) {
    variance = *from.number(name);
  } else {
    section entry = from.needed_table(name, "the variance of a random effect");
    variance = entry.needed_number("variance", "the variance of the random effect");
    block.fixed = entry.flag_or("fixed", false);
    entry.refuse_leftovers();
  }
  if (!(variance > 0.0))
    throw from.error("E-MODEL-OMEGA", name, fmt::format("the variance {} is not above 0", variance),
                     "give a positive variance, or distribution = \"none\" for no random effect");
  block.matrix = {variance};
  return block;
}

// Rows of the lower triangle, or of the whole symmetric matrix.
omega_block read_block(section from) {
  omega_block block;
  block.names = from.texts("parameters");
  block.fixed = from.flag_or("fixed", false);
  const auto rows = from.rows("matrix");
  const std::size_t order = block.names.size();
  const auto wrong = [&](const std::string& message) {
    return from.error("E-MODEL-OMEGA", "matrix", message,
                      "write the rows of the lower triangle, [[0.3], [0.01, 0.2]]");
  };
  if (rows.size() != order)
    throw wrong(fmt::format("the block has {} rows for {} parameters", rows.size(), order));
  block.matrix.assign(order * order, 0.0);
  for (std::size_t i = 0; i < order; ++i) {
    if (rows[i].size() != i + 1 && rows[i].size() != order)
      throw wrong(fmt::format("row {} of the block has {} entries", i + 1, rows[i].size()));
    for (std::size_t j = 0; j <= i; ++j)
      block.matrix[i + j * order] = block.matrix[j + i * order] = rows[i][j];
  }
  for (std::size_t i = 0; i < order; ++i)
    for (std::size_t j = i + 1; j < rows[i].size(); ++j)
      if (rows[i][j] != block.matrix[i + j * order]) throw wrong("the block is not symmetric");
  if (!positive_definite(block.matrix, order))
    throw wrong(
        fmt::format("the block of {} is not positive definite", fmt::join(block.names, ", ")));
  from.refuse_leftovers();
  return block;
}

void check_omega_names(const section& from, const omega_block& block, const model_file& file,
                       std::set<std::string>& seen) {
  std::vector<std::string> random;
  for (const parameter& p : file.parameters)
    if (p.law != distribution::none) random.push_back(p.name);
  for (const std::string& name : block.names) {
    const std::string key = block.names.size() == 1 ? name : "blocks";
    if (std::find(random.begin(), random.end(), name) == random.end()) {
      const std::string near = did_you_mean(name, random);
      throw from.error(
          "E-MODEL-OMEGA", key, fmt::format("{} has no random effect", name),
          near.empty() ? "random effects belong to " + fmt::format("{}", fmt::join(random, ", "))
                       : "did you mean " + near + "?");
    }
    if (!seen.insert(name).second)
      throw from.error("E-MODEL-OMEGA", key, fmt::format("{} stands in omega twice", name),
                       "leave it in one place");
  }
}

void read_omega(section from, model_file& file) {
  std::set<std::string> seen;
  std::vector<omega_block> blocks;
  for (const std::string& key : from.keys()) {
    if (key == "blocks") continue;
    blocks.push_back({{key}, {}, false});
    check_omega_names(from, blocks.back(), file, seen);
    blocks.back() = read_variance(from, key);
  }
  for (const section& block : from.tables("blocks")) {
    blocks.push_back(read_block(block));
    check_omega_names(from, blocks.back(), file, seen);
  }
  for (const parameter& p : file.parameters) {
    if (p.law == distribution::none) continue;
    if (!seen.contains(p.name))
      throw from.error("E-MODEL-OMEGA", p.name,
                       fmt::format("the variance of {}'s random effect is missing", p.name),
                       "give a variance, or distribution = \"none\" for no random effect");
    for (omega_block& block : blocks)
      if (block.names.front() == p.name) file.omega.push_back(block);
  }
}

double read_deviation(section& from, const std::string& key, bool& fixed) {
  double value = 0.0;
  if (from.is_number(key)) {
    value = *from.number(key);
  } else {
    section entry = from.needed_table(key, "a start value of the residual error");
    value = entry.needed_number("start", "a start value of the residual error");
    fixed = entry.flag_or("fixed", false);
    entry.refuse_leftovers();
  }
  if (!(value > 0.0))
    throw from.error("E-MODEL-RANGE", key, fmt::format("the deviation {} is not above 0", value),
                     "standard deviations are positive");
  return value;
}

void read_residual(section from, model_file& file) {
  residual_error& r = file.residual;
  r.kind =
      static_cast<error_kind>(from.word_or("error", 0, {"additive", "proportional", "combined"}));
  if (r.kind != error_kind::proportional)
    r.additive = read_deviation(from, "additive", r.additive_fixed);
  if (r.kind != error_kind::additive)
    r.proportional = read_deviation(from, "proportional", r.proportional_fixed);
  from.refuse_leftovers();
}

void read_data(section from, model_file& file) {
  const std::filesystem::path given = from.needed_text("file", "the data set");
  const std::filesystem::path folder = std::filesystem::path(file.path).parent_path();
  file.data.file = (given.is_absolute() ? given : folder / given).string();
  if (auto columns = from.table("columns")) {
    for (const char* role : {"ID", "TIME", "DV", "AMT", "EVID", "MDV", "CMT"})
      if (const auto name = columns->text(role)) file.data.columns[role] = *name;
    columns->refuse_leftovers();
  }
  from.refuse_leftovers();
}

// The components of a mixture proposal get equal shares of a multiple of 6.
void raise_samples(const std::string& key, int& samples, const std::string& path,
                   findings& warnings) {
  if (samples % 6 == 0) return;
  warnings.push_back(
      {.level = severity::warning,
       .code = "W-MODEL-SAMPLES",
       .message = fmt::format("{} samples are raised to the next multiple of 6", samples),
       .file = path,
       .column = "estimation." + key});
  samples += 6 - samples % 6;
}

void read_estimation(section from, model_file& file) {
  constexpr int many = 1000000;
  estimation_settings& s = file.estimation;
  s.samples = from.whole_number_or("samples", s.samples, least_samples, most_samples);
  s.max_iterations = from.whole_number_or("max_iterations", s.max_iterations, 1, many);
  s.seed = from.whole_number_or("seed", s.seed, 1, largest_seed);
  s.points = static_cast<point_kind>(from.word_or("sampling", 0, {"sobol", "random"}));
  s.fresh_points = from.word_or("points", 0, {"common", "fresh"}) == 1;
  s.scramble =
      static_cast<int>(from.word_or("scramble", 1, {"none", "owen", "faure-tezuka", "both"}));
  s.proposal = static_cast<proposal_family>(from.word_or(
      "proposal", 0, {"normal", "population", "t", "laplace", "mixture2", "mixture3"}));
  s.t_df = from.whole_number_or("t_df", s.t_df, 3, 1000);
  s.acceptance_ratio = from.number_or("acceptance_ratio", s.acceptance_ratio);
  if (!(s.acceptance_ratio > 0.0 && s.acceptance_ratio <= 1.0))
    throw from.error("E-MODEL-RANGE", "acceptance_ratio",
                     fmt::format("{} is out of range", s.acceptance_ratio),
                     "it must lie above 0 and at most at 1");
  s.resamples = from.whole_number_or("resamples", s.resamples, 30, many);
  s.burn_in = from.whole_number_or("burn_in", s.burn_in, 0, many);
  s.freeze_omega = from.flag_or("freeze_omega_in_burn_in", s.freeze_omega);
  s.run_all = from.flag_or("run_all", s.run_all);
  s.tolerance = from.number_or("tolerance", s.tolerance);
  if (!(s.tolerance > 0.0 && s.tolerance < 1.0))
    throw from.error("E-MODEL-RANGE", "tolerance", fmt::format("{} is out of range", s.tolerance),
                     "it must lie between 0 and 1");
  s.map_np = from.whole_number_or("map_np", s.map_np, 0, 1000);
  s.map_assist = from.whole_number_or("map_assist", s.map_assist, 0, many);
  s.standard_errors = static_cast<standard_error_kind>(
      from.word_or("standard_errors", 0, {"information", "score", "sandwich", "none"}));
  s.se_samples = from.whole_number_or("se_samples", s.se_samples, least_samples, most_samples);
  s.replicates = from.whole_number_or("replicates", s.replicates, 2, 1000);
  if (from.has("likelihood_samples"))
    s.likelihood_samples =
        from.whole_number_or("likelihood_samples", 0, least_samples, most_samples);
  from.refuse_leftovers();
}

toml::table parse(const std::string& path) {
  if (!std::filesystem::is_regular_file(path))
    throw bad_input({.code = "E-MODEL-FILE",
                     .message = "the model file cannot be opened",
                     .remedy = "check its name",
                     .file = path});
  try {
    return toml::parse_file(path);
  } catch (const toml::parse_error& error) {
    throw bad_input({.code = "E-MODEL-SYNTAX",
                     .message = std::string(error.description()),
                     .remedy = "the file is TOML: key = value lines under [section] headers",
                     .file = path,
                     .row = static_cast<int>(error.source().begin.line),
                     .column = fmt::format("{}", error.source().begin.column)});
  }
}

}  // namespace

model_file read_model_file(const std::string& path, findings& warnings,
                           const setting_overrides& overrides) {
  const toml::table table = parse(path);
  model_file file;
  file.path = path;
  section root(file.path, table, "");
  file.title = root.text("title").value_or("");
  read_data(root.needed_table("data", "the data set"), file);

  section model = root.needed_table("model", "the structural model");
  const std::vector<std::string> structures = structural_model_names();
  file.structure = model.needed_text("structure", "the structural model");
  if (std::find(structures.begin(), structures.end(), file.structure) == structures.end())
    throw model.unknown_word("structure", file.structure, structures);
  model.refuse_leftovers();

  read_parameters(root.needed_table("parameters", "the parameters of the model"), file);
  read_omega(root.needed_table("omega", "the variances of the random effects"), file);
  read_residual(root.needed_table("residual", "the residual error"), file);
  if (auto estimation = root.table("estimation")) read_estimation(*estimation, file);
  root.refuse_leftovers();
  estimation_settings& settings = file.estimation;
  settings.seed = overrides.seed.value_or(settings.seed);
  settings.samples = overrides.samples.value_or(settings.samples);
  raise_samples("samples", settings.samples, path, warnings);
  raise_samples("likelihood_samples", settings.likelihood_samples, path, warnings);
  raise_samples("se_samples", settings.se_samples, path, warnings);
  return file;
}

}  // namespace varda
