// SPDX-License-Identifier: Apache-2.0
//
// Structural models whose parameters are members of a struct. docs/structural-models.md shows how
// to write one.
#pragma once

#include <cstddef>
#include <string>
#include <utility>
#include <vector>

#include "varda/model/structural_model.h"

namespace varda {

// A parameter under the name that model files give it.
template <class Parameters>
struct named_parameter {
  std::string name;
  double Parameters::*value;
};

// An individual's parameters as structs. Members that are not among the named ones keep their
// defaults.
template <class Parameters>
class typed_path {
 public:
  typed_path(const std::vector<named_parameter<Parameters>>& named, const parameter_path& path)
      : named_(named), path_(path) {}

  bool constant() const { return path_.constant(); }
  Parameters in_segment(int segment) const {
    const std::span<const double> values = path_.in_segment(segment);
    Parameters p{};
    for (std::size_t k = 0; k < values.size(); ++k) p.*named_[k].value = values[k];
    return p;
  }

 private:
  const std::vector<named_parameter<Parameters>>& named_;
  const parameter_path& path_;
};

template <class Parameters>
class typed_model : public individual_model {
 public:
  const std::vector<std::string>& parameter_names() const final { return names_; }

 protected:
  // The parameters in the order in which they are handed over.
  explicit typed_model(std::vector<named_parameter<Parameters>> named) : named_(std::move(named)) {
    for (const auto& parameter : named_) names_.push_back(parameter.name);
  }

  void predict_individual(const subject& who, const parameter_path& p, std::span<double> f,
                          structural_model::workspace& /*scratch*/) const final {
    predict_typed(who, {named_, p}, f);
  }

  // Writes the prediction of observation k of `who` into f[k]. Called from several threads.
  virtual void predict_typed(const subject& who, const typed_path<Parameters>& p,
                             std::span<double> f) const = 0;

 private:
  std::vector<named_parameter<Parameters>> named_;
  std::vector<std::string> names_;
};

}  // namespace varda
