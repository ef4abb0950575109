// SPDX-License-Identifier: Apache-2.0
//
// The model that a command works with: that of a model file, at its start values, or that of a
// fit's folder, at the estimates.
#pragma once

#include <optional>
#include <string>

#include "varda/folder/stored_fit.h"
#include "varda/model/population.h"
#include "varda/simulation/simulate.h"

namespace varda {

// How the data set is read.
struct data_wish {
  std::string file{};           // instead of the model's own, or empty
  bool values_needed = true;    // whether observations need a DV
  bool missing_counts = false;  // whether records with MDV 1 are observations as well
  std::optional<double> doses_until{};
};

class model_source {
 public:
  // `path`: a model file, or a folder that varda fit wrote. Throws bad_input; also where the fit's
  // data are not those of the fit any more.
  model_source(const std::string& path, const data_wish& wish);

  const model_specification& specification() const { return file_; }
  const dataset& data() const { return data_; }
  const std::optional<stored_fit>& fit() const { return fit_; }
  bool has_own_data() const { return own_data_; }

  // The parameters for a model of this specification: the estimates by their names, or the start
  // values. Throws bad_input where the fit has no estimate for one.
  drawn_parameters parameters(const population_model& model) const;

 private:
  std::string path_;
  model_specification file_;
  dataset data_;
  std::optional<stored_fit> fit_;
  bool own_data_ = true;
};

}  // namespace varda
