// SPDX-License-Identifier: Apache-2.0
#include "varda/folder/stored_fit.h"

#include <filesystem>
#include <nlohmann/json.hpp>

#include "varda/support/digest.h"
#include "varda/support/finding.h"

namespace varda {

namespace {

using nlohmann::json;

bad_input no_results(const std::string& folder, const std::string& why) {
  return bad_input({.code = "E-RUN-FOLDER",
                    .message = "the folder holds no results that can be used: " + why,
                    .remedy = "name a folder that varda fit or varda evaluate wrote",
                    .file = folder});
}

double number(const json& from) {
  return from.is_null() ? 0.0 : from.get<double>();
}

std::optional<double> known(const json& from) {
  return from.is_null() ? std::nullopt : std::optional<double>(from.get<double>());
}

Eigen::VectorXd vector_of(const json& from) {
  const auto values = from.get<std::vector<double>>();
  return Eigen::Map<const Eigen::VectorXd>(values.data(), static_cast<Eigen::Index>(values.size()));
}

Eigen::MatrixXd matrix_of(const json& rows) {
  Eigen::MatrixXd result(static_cast<Eigen::Index>(rows.size()),
                         static_cast<Eigen::Index>(rows.size()));
  for (Eigen::Index i = 0; i < result.rows(); ++i)
    result.row(i) = vector_of(rows.at(static_cast<std::size_t>(i))).transpose();
  return result;
}

void add_quantities(const json& list, stored_fit& to) {
  for (const json& entry : list)
    to.quantities.push_back({entry.at("name"), entry.at("estimate"), entry.at("fixed"),
                             entry.contains("rse") ? known(entry.at("rse")) : std::nullopt});
}

void read_results(const json& from, stored_fit& to) {
  to.title = from.at("title");
  to.subjects = from.at("data").at("subjects");
  to.observations = from.at("data").at("observations");
  to.converged = from.at("converged");
  to.reason = from.at("reason");
  to.singular = from.at("singular").get<std::vector<std::string>>();
  to.minus2ll = known(from.at("minus2ll"));
  to.mc_se = number(from.at("minus2ll_mc_se"));
  const json& criteria = from.at("criteria");
  to.estimated = criteria.at("estimated");
  to.aic = number(criteria.at("aic"));
  to.bic_observations = number(criteria.at("bic_observations"));
  to.bic_subjects = number(criteria.at("bic_subjects"));
  for (const json& s : from.at("subjects")) {
    stored_subject& one = to.by_subject.emplace_back();
    one.id = s.at("id");
    one.observations = s.at("observations");
    one.eta_mean = vector_of(s.at("eta_mean"));
    one.eta_covariance = matrix_of(s.at("eta_cov"));
    if (s.contains("minus2ll_replicates"))
      one.minus2ll_replicates = s.at("minus2ll_replicates").get<std::vector<double>>();
  }
  to.theta_names = from.at("theta").at("names").get<std::vector<std::string>>();
  to.theta = vector_of(from.at("theta").at("values"));
  add_quantities(from.at("parameters"), to);
  const json& elements = from.at("omega").at("elements");
  add_quantities(elements, to);
  add_quantities(from.at("residual"), to);
  to.omega.resize(static_cast<Eigen::Index>(elements.size()));
  for (const json& e : elements) {
    to.omega(static_cast<Eigen::Index>(to.omega_names.size())) = e.at("estimate");
    to.omega_names.push_back(e.at("name"));
  }
  if (!from.contains("standard_errors")) return;
  const json& errors = from.at("standard_errors");
  const std::string matrix = "covariance_" + errors.at("kind").get<std::string>();
  if (!errors.contains(matrix) || errors.at(matrix).is_null()) return;
  to.covariance_names = errors.at("names").get<std::vector<std::string>>();
  to.covariance = matrix_of(errors.at(matrix));
}

}  // namespace

std::string read_result(const std::string& folder, const manifest& about, const std::string& name,
                        const file_access& files) {
  const std::optional<std::string> text = files((std::filesystem::path(folder) / name).string());
  if (!text) throw no_results(folder, name + " is missing");
  for (const manifest::file& f : about.files)
    if (f.name == name && f.sha256 != sha256(*text))
      throw no_results(folder, name + " is not as the run wrote it");
  return *text;
}

stored_fit read_stored_fit(const std::string& folder, const file_access& files) {
  stored_fit result;
  result.folder = folder;
  while (result.folder.size() > 1 && result.folder.back() == '/') result.folder.pop_back();
  const std::optional<manifest> about = manifest_of(folder, files);
  if (!about) throw no_results(folder, "it has no manifest");
  result.about = *about;
  const std::string name = about->task + ".json";
  const std::string text = read_result(folder, *about, name, files);
  try {
    read_results(json::parse(text), result);
  } catch (const json::exception& error) {
    throw no_results(folder, name + ": " + error.what());
  }
  return result;
}

}  // namespace varda
