// SPDX-License-Identifier: Apache-2.0
//
// One compartment with linear elimination, volume V and clearance CL, k = CL / V. The prediction is
// the concentration in the compartment, by superposition over the doses that stand before an
// observation.
#pragma once

#include "varda/model/structural_model.h"

namespace varda {

// Doses into the compartment: D / V exp(-k t). Parameters CL, V.
class one_compartment_bolus : public structural_model {
 public:
  const std::vector<std::string>& parameter_names() const override;
  int dose_compartments() const override { return 1; }
  void predict(const subject& who, const parameter_path& p, std::span<double> f) const override;
};

// Doses into a depot (compartment 1) that empties at rate ka, or into the compartment itself (2).
// Parameters ka, CL, V. An oral dose gives D ka / V (exp(-k t) - exp(-ka t)) / (ka - k), which is 0
// at the time of the dose.
class one_compartment_oral : public structural_model {
 public:
  const std::vector<std::string>& parameter_names() const override;
  int dose_compartments() const override { return 2; }
  void predict(const subject& who, const parameter_path& p, std::span<double> f) const override;
};

// (exp(-k t) - exp(-ka t)) / (ka - k) for positive rates and t >= 0, without loss of digits where
// the rates are close; t exp(-k t) where they are equal.
double bateman(double ka, double k, double t);

}  // namespace varda
