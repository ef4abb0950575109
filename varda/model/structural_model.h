// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <memory>
#include <span>
#include <vector>

#include "varda/data/dataset.h"

namespace varda {

// A structural model: what is predicted for a subject's observations given its parameters.
class structural_model {
 public:
  virtual ~structural_model() = default;

  // The parameters in the order of predict's argument.
  virtual const std::vector<std::string>& parameter_names() const = 0;

  // Doses go into compartments 1 to this one.
  virtual int dose_compartments() const = 0;

  // Writes the prediction of observation k of `who` into f[k]; `p` holds the individual's
  // parameters on the natural scale. Parameters outside the model's domain give NaN, which the
  // engine treats as a failed evaluation. f has who.observations.size() entries.
  virtual void predict(const subject& who, std::span<const double> p,
                       std::span<double> f) const = 0;
};

// The names that make_structural_model knows.
std::vector<std::string> structural_model_names();

// The model of that name, or null.
std::unique_ptr<structural_model> make_structural_model(const std::string& name);

}  // namespace varda
