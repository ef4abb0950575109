// SPDX-License-Identifier: Apache-2.0
//
// Linear compartment models: a struct of disposition parameters (compartment_parameters.h shows
// what it must have) with any way of administration.
#pragma once

#include <span>
#include <string>
#include <vector>

#include "varda/model/closed/compartment_walk.h"
#include "varda/model/typed_model.h"

namespace varda {

struct administration_choice {
  route by = route::intravenous;
  bool lag_time = false;
  bool bioavailability = false;
  // Intravenous doses whose rate or duration is a parameter, compartment 1.
  bool modelled_rate = false;
  bool modelled_duration = false;
};

template <class Disposition>
struct compartment_model_parameters : Disposition, administration {};

// The parameters are, in this order: ka of an oral model; those of the disposition; the rate R and
// the duration D; the lag time Tlag; the bioavailability F.
template <class Disposition>
class compartment_model final : public typed_model<compartment_model_parameters<Disposition>> {
 public:
  using parameters = compartment_model_parameters<Disposition>;

  explicit compartment_model(const administration_choice& choice)
      : typed_model<parameters>(named(choice)), choice_(choice) {}

  int dose_compartments() const override {
    return compartments + (choice_.by == route::oral ? 1 : 0);
  }
  bool models_rate(int compartment) const override {
    return choice_.modelled_rate && compartment == 1;
  }
  bool models_duration(int compartment) const override {
    return has_duration(choice_) && compartment == 1;
  }

 private:
  static constexpr int compartments = Disposition::compartments;

  static bool has_duration(const administration_choice& choice) {
    return choice.modelled_duration || choice.by == route::zero_order;
  }

  static std::vector<named_parameter<parameters>> named(const administration_choice& choice) {
    std::vector<named_parameter<parameters>> all;
    if (choice.by == route::oral) all.push_back({"ka", &parameters::absorption_rate});
    for (const auto& [name, value] : Disposition::named()) all.push_back({name, value});
    if (choice.modelled_rate) all.push_back({"R", &parameters::rate});
    if (has_duration(choice)) all.push_back({"D", &parameters::duration});
    if (choice.lag_time) all.push_back({"Tlag", &parameters::lag_time});
    if (choice.bioavailability) all.push_back({"F", &parameters::bioavailability});
    return all;
  }

  void predict_typed(const subject& who, const typed_path<parameters>& path,
                     std::span<double> f) const override {
    parameters p = path.in_segment(0);
    const auto in_segment = [&](int segment) -> kinetics<compartments> {
      if (segment > 0) p = path.in_segment(segment);
      return {p.rates(), &p};
    };
    walk_timeline<compartments>(who, choice_.by, in_segment, path.constant(), f);
  }

  administration_choice choice_;
};

}  // namespace varda
