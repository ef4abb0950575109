// SPDX-License-Identifier: Apache-2.0
//
// What the parts of a run take of memory, from the sizes of model, data and settings; and what
// becomes of a part that is too large.
#pragma once

#include <cstddef>
#include <functional>
#include <string>

#include "varda/host/job.h"
#include "varda/model/population.h"
#include "varda/support/finding.h"

namespace varda {

// Bytes, of one process of so many with so many threads each. All but the first are what a part
// takes beyond what is there when it begins.
std::size_t bytes_of_data(const dataset& data);
// Everything up to the estimates: the program, the data and a step of the method on draws of so
// many points a subject.
std::size_t bytes_of_fit(const population_model& model, int processes, int threads, int samples);
// A draw for the likelihood, the standard errors and the conditional moments.
std::size_t bytes_of_likelihood(const population_model& model, int processes, int threads,
                                int samples);
std::size_t bytes_of_quadrature(const population_model& model);
std::size_t bytes_of_predictions(const population_model& model);
std::size_t bytes_of_npde(const population_model& model, int threads);

// What a fit takes whose verdict falls on the first draws that may bring one, what it takes where
// all points are wanted, and what the diagnostics take beyond.
struct memory_forecast {
  std::size_t fit = 0;
  std::size_t fit_at_most = 0;
  std::size_t diagnostics = 0;
};
memory_forecast forecast_memory(const population_model& model, int processes, int threads);

// Does a part of a run that others can do without, or leaves it out where some process has not the
// `wanted` bytes for it; so, too, where a run of a single process fails to get them. A part that is
// left out is a warning, which says so of it ("the quadrature is") and the bytes. False where it
// was. With several processes one that fails on its own leaves the others waiting, so that this is
// thrown. Collective.
bool within_memory(const job& peers, const std::string& part, std::size_t wanted,
                   findings& warnings, const std::function<void()>& work);

}  // namespace varda
