// SPDX-License-Identifier: Apache-2.0
#include "varda/report/matrix_tables.h"

#include <fmt/format.h>

#include <algorithm>
#include <functional>

#include "varda/report/reports.h"

namespace varda {

namespace {

// Stands for the standard error of what has none.
constexpr double no_error = 1e10;

// Numbers of the rows of the .ext that are no iterations.
enum special_row : long {
  estimates_row = -1000000000,
  errors_row = -1000000001,
  eigenvalues_row = -1000000002,
  condition_row = -1000000003,
  deviations_row = -1000000004,
  fixed_row = -1000000006
};

// A column of the .ext, or a row of the .cov: an entry of theta, of sigma or of omega.
struct quantity {
  std::string label;  // "THETA1"
  std::string name;   // as in the other reports
  int theta = -1;     // position in theta, or -1
  int row = -1;       // of omega, or -1
  int column = -1;
  bool fixed = true;
  std::pair<int, int> first_place{-1, -1};  // in omega, for effects per occasion

  // `natural` is theta on the natural scale.
  double value(const Eigen::VectorXd& natural, const Eigen::MatrixXd& omega) const {
    if (theta >= 0) return natural(theta);
    return row < 0 ? 1.0 : omega(row, column);
  }
  // Among the estimated quantities of the standard errors, or -1.
  int place(const standard_errors& errors) const {
    if (fixed) return -1;
    return theta >= 0 ? errors.place_of_theta(theta)
                      : errors.place_of_omega(first_place.first, first_place.second);
  }
};

std::vector<quantity> quantities(const population_model& model) {
  std::vector<quantity> all;
  for (std::size_t k = 0; k < model.thetas().size(); ++k) {
    const fixed_effect& t = model.thetas()[k];
    all.push_back({.label = fmt::format("THETA{}", k + 1),
                   .name = t.name,
                   .theta = static_cast<int>(k),
                   .fixed = t.fixed});
  }
  all.push_back({.label = "SIGMA(1,1)", .name = "unit variance"});
  const std::size_t first_omega = all.size();
  for (int i = 0; i < model.random_effects(); ++i)
    for (int j = 0; j <= i; ++j)
      all.push_back({.label = fmt::format("OMEGA({},{})", i + 1, j + 1),
                     .name = "zero by structure",
                     .row = i,
                     .column = j});
  for (const omega_element& e : model.omega_elements())
    for (const auto& [i, j] : e.places) {
      quantity& q = all[first_omega + static_cast<std::size_t>(i * (i + 1) / 2 + j)];
      q.name = e.name;
      q.fixed = e.fixed;
      q.first_place = {e.row(), e.column()};
    }
  return all;
}

const char* method_of(const fit_result& result) {
  return result.what == task::fit ? "Quasi-Random Parametric EM" : "Quasi-Random Evaluation";
}

std::string title(const fit_result& result) {
  return fmt::format(
      "TABLE NO.     1: {}: Goal Function=EXPECTED VALUE OF OBJECTIVE FUNCTION: Problem=1 "
      "Subproblem=0 Superproblem1=0 Iteration1=0 Superproblem2=0 Iteration2=0\n",
      method_of(result));
}

std::string heading(const std::string& label) {
  return fmt::format(" {:<12}", label);
}

std::string field(double value) {
  return fmt::format(" {:>12.5E}", value);
}

// The last column of a row, without padding.
std::string objective(double value) {
  return fmt::format(" {:.17g}\n", value);
}

std::string matrix_table(const population_model& model, const fit_result& result,
                         const Eigen::MatrixXd& matrix) {
  const std::vector<quantity> all = quantities(model);
  std::string table = title(result) + heading("NAME");
  for (const quantity& q : all) table += heading(q.label);
  table += "\n";
  for (const quantity& one : all) {
    table += heading(one.label);
    const int i = one.place(result.errors);
    for (const quantity& other : all) {
      const int j = other.place(result.errors);
      table += field(i < 0 || j < 0 ? 0.0 : matrix(i, j));
    }
    table += "\n";
  }
  return table;
}

// Identifiers are any text, fields of these tables hold no blanks.
std::string without_blanks(std::string text) {
  std::replace(text.begin(), text.end(), ' ', '_');
  return text;
}

}  // namespace

std::string ext_table(const population_model& model, const fit_result& result) {
  const std::vector<quantity> all = quantities(model);
  std::string table = title(result) + heading("ITERATION");
  for (const quantity& q : all) table += heading(q.label);
  table += " OBJ\n";
  const auto add = [&](long number, const std::function<double(const quantity&)>& of, double last) {
    table += fmt::format(" {:>12}", number);
    for (const quantity& q : all) table += field(of(q));
    table += objective(last);
  };
  // Figures of no quantity in particular, from the first column on.
  const auto add_figures = [&](long number, const Eigen::VectorXd& figures) {
    table += fmt::format(" {:>12}", number);
    for (std::size_t k = 0; k < all.size(); ++k) {
      const auto at = static_cast<Eigen::Index>(k);
      table += field(at < figures.size() ? figures(at) : 0.0);
    }
    table += objective(0.0);
  };

  for (std::size_t r = 0; r < result.iterations.size(); ++r) {
    const natural_iteration& natural = result.natural_iterations[r];
    const Eigen::MatrixXd& omega = result.iterations[r].omega;
    add(
        result.iterations[r].iteration,
        [&](const quantity& q) { return q.value(natural.theta, omega); }, natural.minus2ll);
  }
  const auto on_the_scale_of = [&](const Eigen::MatrixXd& omega) {
    return [&](const quantity& q) { return q.value(result.natural_theta, omega); };
  };
  add(estimates_row, on_the_scale_of(result.omega), result.objective.minus2ll);
  const standard_errors& errors = result.errors;
  if (!errors.chosen().empty()) {
    add(
        errors_row,
        [&](const quantity& q) {
          const int k = q.place(errors);
          return k < 0 ? no_error : errors.chosen()[static_cast<std::size_t>(k)].se;
        },
        0.0);
    // None where the data identify no parameter.
    if (errors.eigenvalues.size() > 0) {
      add_figures(eigenvalues_row, errors.eigenvalues);
      add_figures(condition_row,
                  Eigen::Vector3d(errors.condition_number, errors.eigenvalues(0),
                                  errors.eigenvalues(errors.eigenvalues.size() - 1)));
    }
  }
  add(deviations_row, on_the_scale_of(result.effects.correlations), 0.0);
  add(
      fixed_row, [](const quantity& q) { return q.fixed ? 1.0 : 0.0; }, 0.0);
  return table;
}

text_pieces phi_table(const population_model& model, const fit_result& result) {
  const int effects = model.random_effects();
  std::string header = title(result) + heading("SUBJECT_NO") + heading("ID");
  for (int i = 1; i <= effects; ++i) header += heading(fmt::format("PHI({})", i));
  for (int i = 1; i <= effects; ++i)
    for (int j = 1; j <= i; ++j) header += heading(fmt::format("PHC({},{})", i, j));
  return [&model, &result, effects, header = header + " OBJ\n"](const text_sink& to) {
    to(header);
    if (result.predictions.empty()) return;
    for (int i = 0; i < model.subjects(); ++i) {
      const auto at = static_cast<std::size_t>(i);
      const Eigen::MatrixXd& covariance = result.likelihood.subjects[at].covariance;
      std::string row =
          fmt::format(" {:>12} {:>12}", i + 1, without_blanks(model.data().subjects[at].id));
      for (const double phi : result.predictions[at].phi) row += field(phi);
      for (int r = 0; r < effects; ++r)
        for (int c = 0; c <= r; ++c) row += field(covariance(r, c));
      to(row + objective(result.objective.subjects[at]));
    }
  };
}

std::string cov_table(const population_model& model, const fit_result& result) {
  return matrix_table(model, result, result.natural_covariance);
}

std::string cor_table(const population_model& model, const fit_result& result) {
  Eigen::MatrixXd matrix = result.errors.correlation;
  for (Eigen::Index k = 0; k < matrix.rows(); ++k)
    matrix(k, k) = result.errors.chosen()[static_cast<std::size_t>(k)].se;
  return matrix_table(model, result, matrix);
}

std::string legend_csv(const population_model& model) {
  std::string table = "column,name,fixed\n";
  for (const quantity& q : quantities(model))
    table += fmt::format("{},{},{}\n", csv_field(q.label), csv_field(q.name), q.fixed ? 1 : 0);
  for (std::size_t e = 0; e < model.effects().size(); ++e)
    table +=
        fmt::format("PHI({}),{},0\n", e + 1, csv_field("phi(" + model.effects()[e].name + ")"));
  return table;
}

}  // namespace varda
