// SPDX-License-Identifier: Apache-2.0
//
// A linear compartment model whose disposition is a struct of parameters
// (compartment_parameters.h shows what it must have), with any way of administration.
#pragma once

#include <array>
#include <cstddef>
#include <string>
#include <vector>

#include "varda/model/closed/linear_compartments.h"
#include "varda/model/closed/mammillary.h"
#include "varda/model/typed_model.h"

namespace varda {

template <class Disposition>
class compartment_model final : public linear_compartments {
 public:
  explicit compartment_model(const administration_choice& choice)
      : linear_compartments(Disposition::compartments, names(), choice) {
    std::size_t k = 0;
    for (const auto& [name, value] : Disposition::named()) members_.at(k++) = value;
  }

 private:
  static std::vector<std::string> names() {
    std::vector<std::string> all;
    for (const auto& [name, value] : Disposition::named()) all.push_back(name);
    return all;
  }

  void write_rates(const double* p, std::size_t stride, std::size_t individuals,
                   const rate_rows& rows) const override {
    for (std::size_t j = 0; j < individuals; ++j) {
      Disposition one{};
      for (std::size_t k = 0; k < count; ++k) one.*members_[k] = p[k * stride + j];
      const mammillary<Disposition::compartments> rates = one.rates();
      rows.volume[j] = rates.volume;
      rows.elimination[j] = rates.elimination;
      for (std::size_t c = 0; c < rates.to.size(); ++c) {
        rows.to[c][j] = rates.to[c];
        rows.from[c][j] = rates.from[c];
      }
    }
  }

  // Known to the compiler, which then has no loop over them for each individual.
  static constexpr std::size_t count = sizeof(Disposition) / sizeof(double);
  std::array<double Disposition::*, count> members_{};
};

}  // namespace varda
