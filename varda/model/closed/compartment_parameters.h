// SPDX-License-Identifier: Apache-2.0
//
// The ways to give the parameters of one, two and three compartments: by clearances and volumes, or
// by rate constants and the central volume. Each is a struct of parameters, their names in the
// order of the model file, and the rate constants that follow from them.
#pragma once

#include <cmath>
#include <vector>

#include "varda/model/closed/mammillary.h"
#include "varda/model/typed_model.h"

namespace varda {

struct one_compartment_clearances {
  static constexpr int compartments = 1;
  double CL, V;
  mammillary<1> rates() const { return {V, CL / V, {}, {}}; }
  static std::vector<named_parameter<one_compartment_clearances>> named() {
    using self = one_compartment_clearances;
    return {{"CL", &self::CL}, {"V", &self::V}};
  }
};

struct two_compartment_clearances {
  static constexpr int compartments = 2;
  double CL, V1, Q, V2;
  mammillary<2> rates() const { return {V1, CL / V1, {Q / V1}, {Q / V2}}; }
  static std::vector<named_parameter<two_compartment_clearances>> named() {
    using self = two_compartment_clearances;
    return {{"CL", &self::CL}, {"V1", &self::V1}, {"Q", &self::Q}, {"V2", &self::V2}};
  }
};

struct three_compartment_clearances {
  static constexpr int compartments = 3;
  double CL, V1, Q2, V2, Q3, V3;
  mammillary<3> rates() const { return {V1, CL / V1, {Q2 / V1, Q3 / V1}, {Q2 / V2, Q3 / V3}}; }
  static std::vector<named_parameter<three_compartment_clearances>> named() {
    using self = three_compartment_clearances;
    return {{"CL", &self::CL}, {"V1", &self::V1}, {"Q2", &self::Q2},
            {"V2", &self::V2}, {"Q3", &self::Q3}, {"V3", &self::V3}};
  }
};

struct one_compartment_rates {
  static constexpr int compartments = 1;
  double k, V;
  mammillary<1> rates() const { return {V, k, {}, {}}; }
  static std::vector<named_parameter<one_compartment_rates>> named() {
    using self = one_compartment_rates;
    return {{"k", &self::k}, {"V", &self::V}};
  }
};

struct two_compartment_rates {
  static constexpr int compartments = 2;
  double k, V, k12, k21;
  mammillary<2> rates() const { return {V, k, {k12}, {k21}}; }
  static std::vector<named_parameter<two_compartment_rates>> named() {
    using self = two_compartment_rates;
    return {{"k", &self::k}, {"V", &self::V}, {"k12", &self::k12}, {"k21", &self::k21}};
  }
};

struct three_compartment_rates {
  static constexpr int compartments = 3;
  double k, V, k12, k21, k13, k31;
  mammillary<3> rates() const { return {V, k, {k12, k13}, {k21, k31}}; }
  static std::vector<named_parameter<three_compartment_rates>> named() {
    using self = three_compartment_rates;
    return {{"k", &self::k},     {"V", &self::V},     {"k12", &self::k12},
            {"k21", &self::k21}, {"k13", &self::k13}, {"k31", &self::k31}};
  }
};

}  // namespace varda
