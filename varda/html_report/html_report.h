// SPDX-License-Identifier: Apache-2.0
//
// A run as one HTML file that needs no other: results, diagnostics and simulations with drawings.
#pragma once

#include <string>

#include "varda/folder/stored_fit.h"
#include "varda/model/population.h"
#include "varda/simulation/simulate.h"

namespace varda {

// What a report is made from: a run, its model with the data that the run has seen, its estimates.
struct report_source {
  const stored_fit& fit;
  const population_model& model;
  const drawn_parameters& at;
};

struct report_plan {
  int replicates = 1000;  // simulations behind the visual predictive checks
  int threads = 1;
};

// Everything that the page shows, as JSON: the results of the run as its folder has them, rows,
// subjects with their smooth curves, visual predictive checks. The same for any number of threads.
// Throws bad_input where the folder's tables are not as the run wrote them.
std::string report_data(const report_source& from, const report_plan& plan);

// The page with these data. Nothing in them is markup: they stand in a script element of type
// application/json, and the page writes them as text.
std::string html_page(const std::string& title, const std::string& data);

}  // namespace varda
