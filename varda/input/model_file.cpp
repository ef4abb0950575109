// SPDX-License-Identifier: Apache-2.0
#include "varda/input/model_file.h"

#include <fmt/format.h>

#include <bit>
#include <map>
#include <utility>

#include "varda/input/model_file_parts.h"
#include "varda/model/settings_table.h"

namespace varda {

namespace {

bool is_mixture(proposal_family family) {
  switch (family) {
    case proposal_family::mixture2:
    case proposal_family::mixture3:
      return true;
    case proposal_family::normal:
    case proposal_family::population:
    case proposal_family::t:
    case proposal_family::laplace:
      return false;
  }
  return false;
}

// The components of a mixture proposal get equal shares of a multiple of 6. A power of two of Sobol
// points is worth more than that.
void raise_samples(const std::string& key, int& samples, const std::string& path,
                   findings& warnings) {
  if (samples % 6 == 0 || std::has_single_bit(static_cast<unsigned>(samples))) return;
  warnings.push_back(
      {.level = severity::warning,
       .code = "W-MODEL-SAMPLES",
       .message = fmt::format("{} samples are raised to the next multiple of 6", samples),
       .file = path,
       .column = "estimation." + key});
  samples += 6 - samples % 6;
}

}  // namespace

model_specification read_model_file(const std::string& path, findings& warnings,
                                    const setting_overrides& overrides,
                                    const file_access& text_of) {
  model_specification file;
  file.path = path;
  section root = section::of_file(path, text_of);
  file.title = root.text("title").value_or("");
  read_data(root.needed_table("data", "the data set"), file);

  std::map<std::string, section> places;
  read_endpoints(root, file, places);
  section model = root.needed_table("model", "the structural model");
  const section parameters = root.needed_table("parameters", "the parameters of the model");
  file.structure.equations.parameters = parameters.keys();
  read_structure(std::move(model), places, text_of, warnings, file);
  read_parameters(parameters, file);
  read_omega(root.needed_table("omega", "the variances of the random effects"), file);
  check_outputs(root, file);
  if (auto estimation = root.table("estimation")) read_estimation(*estimation, file);
  root.refuse_leftovers();
  estimation_settings& settings = file.estimation;
  for (const auto& [name, value] : overrides) settings.*whole_number_called(name).member = value;
  if (is_mixture(settings.proposal)) {
    raise_samples("samples", settings.samples, path, warnings);
    raise_samples("likelihood_samples", settings.likelihood_samples, path, warnings);
  }
  return file;
}

}  // namespace varda
