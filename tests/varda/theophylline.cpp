// SPDX-License-Identifier: Apache-2.0
#include "tests/varda/theophylline.h"

#include <Eigen/Cholesky>
#include <fstream>
#include <optional>
#include <random>
#include <sstream>
#include <stdexcept>

#include "tests/support/fake_host.h"
#include "varda/host/engine_host.h"
#include "varda/input/model_file.h"

namespace test {

namespace {

const varda::job& alone() {
  static const varda::job job(nullptr, nullptr);
  return job;
}

}  // namespace

varda::population_model theophylline(
    const std::function<void(varda::model_specification&)>& change) {
  varda::findings warnings;
  varda::model_specification file =
      varda::read_model_file(SOURCE_FOLDER "/examples/theophylline/theophylline.toml", warnings);
  change(file);
  varda::dataset data = varda::read_dataset(file.data, warnings);
  return {std::move(file), std::move(data)};
}

std::vector<double> predict(const varda::structural_model& model, const varda::subject& who,
                            const std::vector<double>& p, std::size_t sets, std::string* why) {
  std::vector<double> f(who.observations.size(), -1.0);
  const auto scratch = model.make_workspace();
  model.predict(who, {p.data(), p.size() / sets, sets, 1, 1}, {f.data(), f.size(), 1}, *scratch);
  if (why != nullptr) *why = model.last_failure(*scratch);
  return f;
}

Eigen::VectorXd predict(const varda::population_model& model, int subject,
                        const Eigen::VectorXd& theta, const Eigen::VectorXd& phi) {
  varda::density_workspace scratch(model);
  Eigen::MatrixXd f;
  varda::density(model).predict(subject, theta.data(), phi, f, scratch);
  return f.transpose();
}

void set_parameters(varda::model_specification& file, const std::vector<double>& typical,
                    const std::vector<double>& variances, double additive) {
  for (std::size_t k = 0; k < typical.size(); ++k) {
    file.parameters[k].start = typical[k];
    file.omega[k].matrix = {variances[k]};
  }
  file.endpoints.front().residual.additive = additive;
}

varda::population_model simulated(const varda::population_model& from, int copies, unsigned seed,
                                  double limit) {
  std::mt19937 bits(seed);
  std::normal_distribution<double> normal;
  const Eigen::VectorXd theta = from.start_theta();
  const Eigen::MatrixXd factor = from.start_omega().llt().matrixL();
  varda::dataset data = from.data();
  data.subjects.clear();
  for (int copy = 0; copy < copies; ++copy)
    for (int i = 0; i < from.subjects(); ++i) {
      varda::subject who = from.data().subjects[static_cast<std::size_t>(i)];
      who.id += "/" + std::to_string(copy);
      if (copies == 1) who.id = std::to_string(i + 1);
      Eigen::VectorXd phi(from.random_effects());
      from.means(i, theta.data(), phi.data());
      phi += factor * Eigen::VectorXd::NullaryExpr(phi.size(), [&] { return normal(bits); });
      const Eigen::VectorXd f = predict(from, i, theta, phi);
      for (std::size_t k = 0; k < who.observations.size(); ++k) {
        varda::observation& o = who.observations[k];
        double e = normal(bits);
        const double nu = from.observed().degrees_of_freedom(o);
        if (nu > 0.0) e /= std::sqrt(std::chi_squared_distribution<double>(nu)(bits) / nu);
        o.value = from.observed().simulated(o, f(static_cast<Eigen::Index>(k)), e, theta.data());
        if (o.value >= limit) continue;
        o.value = limit;
        o.censored = varda::censoring::left;
      }
      data.subjects.push_back(who);
    }
  return {from.specification(), data};
}

varda::fit_result fit(const varda::population_model& model, bool quiet) {
  std::optional<captured_unit> swallowed;
  if (quiet) swallowed.emplace();
  varda::engine_host host(model, alone());
  return varda::fit(host, varda::no_progress);
}

varda::fit_result evaluate(const varda::population_model& model) {
  const captured_unit swallowed;
  varda::engine_host host(model, alone());
  return varda::evaluate(host, varda::no_progress);
}

double minus2ll(const varda::fit_result& result) {
  return result.objective.minus2ll;
}

void start_at(varda::model_specification& file, const varda::population_model& model,
              const varda::fit_result& result) {
  Eigen::Index at = 0;
  for (varda::parameter& p : file.parameters) {
    p.start = model.thetas()[static_cast<std::size_t>(at)].natural(result.theta(at));
    ++at;
  }
  for (varda::parameter& p : file.parameters)
    for (varda::covariate_effect& e : p.effects) e.start = result.theta(at++);
  varda::residual_error& error = file.endpoints.front().residual;
  at = model.first_of_endpoints();
  for (const varda::fixed_effect& d : model.observed().parameters())
    (d.name == "proportional" ? error.proportional : error.additive) = result.theta(at++);
  Eigen::Index effect = 0;
  for (varda::omega_block& block : file.omega) {
    const auto order = static_cast<Eigen::Index>(block.names.size());
    Eigen::Map<Eigen::MatrixXd>(block.matrix.data(), order, order) =
        result.omega.block(effect, effect, order, order);
    effect += order;
  }
}

std::map<std::string, std::vector<double>> reference(const std::string& name) {
  std::ifstream file(SOURCE_FOLDER "/tests/varda/reference/" + name);
  if (!file) throw std::runtime_error("no reference " + name);
  std::map<std::string, std::vector<double>> table;
  std::string line;
  std::getline(file, line);
  while (std::getline(file, line)) {
    std::istringstream row(line);
    std::string key;
    std::getline(row, key, ',');
    for (std::string cell; std::getline(row, cell, ',');)
      table[key].push_back(cell.empty() ? 0.0 : std::stod(cell));
  }
  return table;
}

}  // namespace test
