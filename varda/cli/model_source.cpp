// SPDX-License-Identifier: Apache-2.0
#include "varda/cli/model_source.h"

#include <algorithm>
#include <filesystem>

#include "varda/input/model_file.h"
#include "varda/support/digest.h"
#include "varda/support/files.h"

namespace varda {

namespace {

void check_data(const stored_fit& fit) {
  const std::optional<std::string> bytes = read_from_disk(fit.about.data_path);
  if (bytes && sha256(*bytes) == fit.about.data_sha256) return;
  throw bad_input({.code = "E-RUN-DATA",
                   .message = bytes ? "the data file has changed since the fit"
                                    : "the data file of the fit cannot be read",
                   .remedy = "fit again, or give a data set with --data",
                   .file = fit.about.data_path});
}

double value_of(const std::string& name, const std::vector<std::string>& names,
                const Eigen::VectorXd& values, const std::string& folder) {
  const auto at = std::find(names.begin(), names.end(), name);
  if (at == names.end())
    throw bad_input({.code = "E-RUN-FOLDER",
                     .message = "the fit has no estimate of " + name,
                     .remedy = "the data may have levels or occasions that the fit did not have",
                     .file = folder});
  return values(at - names.begin());
}

}  // namespace

model_source::model_source(const std::string& path, const data_wish& wish)
    : path_(path), own_data_(wish.file.empty()) {
  findings warnings;
  const std::filesystem::path given(path);
  if (std::filesystem::is_directory(given)) {
    fit_ = read_stored_fit(path);
    file_ = read_model_file((given / "model-used.toml").string(), warnings);
    file_.data.file = fit_->about.data_path;
    file_.estimation.seed = fit_->about.seed;
    if (own_data_) check_data(*fit_);
  } else {
    file_ = read_model_file(path, warnings);
  }
  if (!own_data_) file_.data.file = wish.file;
  file_.data.values_needed = wish.values_needed;
  file_.data.missing_counts = wish.missing_counts;
  if (wish.doses_until) file_.data.doses_until = *wish.doses_until;
  data_ = read_dataset(file_.data, warnings);
}

drawn_parameters model_source::parameters(const population_model& model) const {
  drawn_parameters at{model.start_theta(), model.start_omega()};
  if (!fit_) return at;
  for (std::size_t k = 0; k < model.thetas().size(); ++k)
    at.theta(static_cast<Eigen::Index>(k)) =
        value_of(model.thetas()[k].name, fit_->theta_names, fit_->theta, path_);
  for (const omega_element& e : model.omega_elements()) {
    const double value = value_of(e.name, fit_->omega_names, fit_->omega, path_);
    for (const auto& [row, column] : e.places)
      at.omega(row, column) = at.omega(column, row) = value;
  }
  return at;
}

}  // namespace varda
