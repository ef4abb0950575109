// SPDX-License-Identifier: Apache-2.0
//
// Predictions of linear compartment models: a subject's timeline is walked once, and the amounts
// are carried from event to event by their exact solution.
#pragma once

#include <functional>
#include <span>

#include "varda/data/dataset.h"
#include "varda/model/closed/mammillary.h"

namespace varda {

// How a plain dose into compartment 1 enters.
enum class route { intravenous, oral, zero_order };

// What becomes of a dose on its way into the compartments. What a model has no parameter for keeps
// its default.
struct administration {
  double absorption_rate = 1.0;  // ka, out of the depot
  double duration = 1.0;         // of zero-order absorption, and of doses with modelled duration
  double rate = 1.0;             // of doses with modelled rate
  double lag_time = 0.0;
  double bioavailability = 1.0;
};

// A linear compartment model with an individual's parameters.
//
// Doses into the depot of an oral model (its compartment 1), and all doses of other models, enter
// lag_time later and as their amount times the bioavailability: an infusion at a rate keeps the
// rate and runs for a shorter or longer time, one with a modelled duration keeps the duration.
// Without a depot compartment 1 is the central one, with it 2; the peripheral compartments follow.
template <int N>
struct kinetics {
  mammillary<N> rates;
  const administration* given;  // not owned; read again for every dose
};

// Writes the concentrations in the central compartment into f, one for each observation.
// `in_segment` gives the model that is in force from the beginning of a segment; it is called for
// segment 0 first, and after that for those in which the parameters change. A dose follows the
// model in force at its time, also with regard to all that came before it in a steady state. All of
// f is NaN where a rate, the volume or a duration is not above 0 and finite, or a lag time or
// bioavailability below 0.
template <int N>
void walk_timeline(const subject& who, route by,
                   const std::function<kinetics<N>(int segment)>& in_segment, bool constant,
                   std::span<double> f);

}  // namespace varda
