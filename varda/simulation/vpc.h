// SPDX-License-Identifier: Apache-2.0
//
// Visual predictive checks: percentiles of the observations in bins of time, against those of
// simulations. Holford (2005), PAGE 14, abstract 738; prediction-corrected: Bergstrand, Hooker,
// Wallin and Karlsson (2011), AAPS J. 13, 143-151.
#pragma once

#include <string>
#include <vector>

#include "varda/model/population.h"
#include "varda/simulation/simulate.h"

namespace varda {

struct vpc_plan {
  // Values are multiplied by the median prediction of their bin over their own. Observations whose
  // prediction is not above 0 are left out.
  bool prediction_corrected = false;
  bool time_after_dose = false;  // instead of time
  int bins = 0;                  // how many; 0: chosen (bin_edges)
  std::vector<double> edges;     // ascending, instead of a number; what lies outside is left out
  std::string stratify;          // a covariate of the model, or empty
  double interval = 0.95;        // share of the replicates between the ends
};

// Of the data, and over the replicates the median and the ends of the interval. NaN where it is not
// known: a percentile that falls among censored values.
struct vpc_statistic {
  double observed = 0.0;
  double lower = 0.0, median = 0.0, upper = 0.0;
};

struct vpc_bin {
  double from = 0.0, to = 0.0;
  double centre = 0.0;  // median time of its observations
  int observations = 0;
  std::vector<vpc_statistic> percentiles;  // in the order of vpc_percentiles
  vpc_statistic censored;                  // share of values below or above their limits
};

inline constexpr double vpc_percentiles[] = {0.05, 0.5, 0.95};

// One endpoint in one stratum.
struct vpc_panel {
  int endpoint = 0;
  std::string stratum;  // "WT 70", "WT at most 70.5"; empty without strata
  std::vector<vpc_bin> bins;
  std::vector<double> times;   // of the observations that were used, with their values: for plots
  std::vector<double> values;  // prediction-corrected where that was asked for
  std::vector<bool> below, above;  // censored
  int left_out = 0;
};

// An endpoint of events in one stratum, on a grid of times: the share of subjects without an event
// (Kaplan and Meier, 1958, J. Am. Stat. Assoc. 53, 457-481), or, of events that come again, the
// mean number of events of a subject (Nelson and Aalen). An event in an interval counts at its end.
// NaN where nobody is watched any more.
struct event_panel {
  int endpoint = 0;
  std::string stratum;
  bool repeated = false;
  int subjects = 0;
  std::vector<double> times;
  std::vector<int> at_risk;  // in the data, just before the time
  std::vector<vpc_statistic> values;
};

struct vpc_result {
  vpc_plan plan;
  int replicates = 0;
  std::vector<vpc_panel> panels;  // of endpoints whose rows have values
  std::vector<event_panel> events;
};

// The edges of `bins` bins that hold about as many of the times (ascending) each, halfway between
// neighbours and never between equal ones; with as many distinct times or fewer, one bin for each.
std::vector<double> bin_edges(const std::vector<double>& times, int bins);

// How many bins there are without a word of the user's: the median number of observations of a
// subject, or one for each 30 observations (8 at most) where that is more; never more than 20, and
// none with less than 5 observations on average. `counts`: observations of each subject.
int automatic_bins(std::vector<int> counts);

// The percentile of ascending values, between neighbours as R's type 7. An end that is infinite
// makes it infinite.
double percentile_of(const std::vector<double>& ascending, double probability);

// One of the curves above, of subjects that are watched until `ends` and have events at times
// (ascending, none after its end).
std::vector<double> event_curve(const std::vector<std::vector<double>>& events,
                                const std::vector<double>& ends, bool repeated,
                                const std::vector<double>& times);

// From simulations of the model's own data at `estimates`. Throws bad_input where the covariate
// that is to stratify is not one of the model.
vpc_result visual_predictive_check(const population_model& model, const drawn_parameters& estimates,
                                   const std::vector<simulated_subject>& simulated,
                                   const vpc_plan& plan);

}  // namespace varda
