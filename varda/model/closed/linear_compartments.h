// SPDX-License-Identifier: Apache-2.0
//
// Predictions of linear compartment models: a subject's timeline is walked once for many
// individuals, and their amounts are carried from event to event by the exact solution.
#pragma once

#include <cstddef>
#include <memory>
#include <string>
#include <vector>

#include "varda/model/lanes/kernel.h"
#include "varda/model/structural_model.h"

namespace varda {

// How a plain dose into compartment 1 enters.
enum class route { intravenous, oral, zero_order };

struct administration_choice {
  route by = route::intravenous;
  bool lag_time = false;
  bool bioavailability = false;
  // Intravenous doses whose rate or duration is a parameter, compartment 1.
  bool modelled_rate = false;
  bool modelled_duration = false;
};

// The parameters are, in this order: ka of an oral model; those of the disposition; the rate R and
// the duration D; the lag time Tlag; the bioavailability F.
//
// Doses into the depot of an oral model (its compartment 1), and all doses of other models, enter
// Tlag later and as their amount times F: an infusion at a rate keeps the rate and runs for a
// shorter or longer time, one with a modelled duration keeps the duration. Without a depot
// compartment 1 is the central one, with it 2; the peripheral compartments follow.
//
// A dose follows the parameters in force at its time, also with regard to all that came before it
// in a steady state. All predictions of an individual are NaN where a rate, the volume or a
// duration is not above 0 and finite, or a lag time or bioavailability below 0.
class linear_compartments : public structural_model {
 public:
  const std::vector<std::string>& parameter_names() const final { return names_; }
  int dose_compartments() const final {
    return compartments_ + (choice_.by == route::oral ? 1 : 0);
  }
  bool models_rate(int compartment) const final {
    return choice_.modelled_rate && compartment == 1;
  }
  bool models_duration(int compartment) const final { return has_duration() && compartment == 1; }

  std::unique_ptr<workspace> make_workspace() const final;
  // With another kernel than the best one: results are the same.
  std::unique_ptr<workspace> make_workspace(const lane_kernel& kernel) const;
  void predict(const subject& who, const parameter_block& p, const prediction_block& f,
               workspace& scratch) const final;

 protected:
  // 1 to 3 compartments.
  linear_compartments(int compartments, const std::vector<std::string>& disposition,
                      const administration_choice& choice);

  // Rows of one number for each individual.
  struct rate_rows {
    double* volume;
    double* elimination;
    double* to[2];
    double* from[2];
  };
  // The rate constants of individuals; parameter k of the disposition stands in p + k stride.
  virtual void write_rates(const double* p, std::size_t stride, std::size_t individuals,
                           const rate_rows& rows) const = 0;

 private:
  struct own_workspace;

  bool has_duration() const { return choice_.modelled_duration || choice_.by == route::zero_order; }
  closed_dose taken_up(const dose& d) const;
  void lay_out(const subject& who, bool constant, own_workspace& own) const;
  void set_parameters(const parameter_block& p, std::size_t first, std::size_t count,
                      own_workspace& own) const;

  int compartments_;
  std::size_t of_disposition_;
  administration_choice choice_;
  std::vector<std::string> names_;
};

}  // namespace varda
