// SPDX-License-Identifier: Apache-2.0
//
// Values of endpoints that are not normal, drawn from their laws. docs/endpoints.md.
#pragma once

#include <cstddef>
#include <vector>

#include "varda/model/population.h"
#include "varda/simulation/deviates.h"

namespace varda {

// Whether values can be drawn: the law is told by its formulas, and not by a log-likelihood.
bool can_be_simulated(const outcome_text& of);
// Whether a value belongs to a row, and not the row to an event.
bool has_row_values(const outcome_text& of);

// The value at which the distribution function reaches u, for 0 < u < 1. `parameters`: the
// quantities of the law from quantity::parameters on. NaN where one of them is.
double outcome_at(const outcome_text& of, const double* parameters, double u);

// The value as a whole number of its order: a level's position, any other value itself.
double rank_of(const outcome_text& of, double value);

// Of the rank of a value that is drawn by these parameters.
struct rank_moments {
  double mean = 0.0;
  double variance = 0.0;
};
rank_moments rank_moments_of(const outcome_text& of, const double* parameters);

// A simulated event, or the end of its watch without one.
struct event_row {
  int endpoint = 0;
  double time = 0.0;
  bool happened = false;
};

// When a subject's events are watched: by endpoint, NaN for other endpoints and where the subject
// has no rows of it. Where the last row of a subject is an event, the watch might have gone on: its
// end is then that of the endpoint's last row in the data. `follow_up` of the endpoint comes first.
class watch_times {
 public:
  explicit watch_times(const population_model& model);
  double end_of(int subject, int endpoint) const;

 private:
  const population_model& model_;
  std::vector<double> last_;
};

// A subject whose observations tell the hazards of its events on a grid of times.
class event_design {
 public:
  event_design(const population_model& model, int subject, const watch_times& until);

  bool empty() const { return grids_.empty(); }
  const subject& who() const { return who_; }

  // Appends the events of one individual, endpoint by endpoint, from the predictions of who()'s
  // observations. False where a hazard is not known.
  bool draw(const Eigen::VectorXd& predictions, deviates& from, std::vector<event_row>& to) const;

 private:
  struct grid {
    int endpoint = 0;
    bool repeated = false;
    double end = 0.0;
    std::vector<double> times;
    // Positions of the cumulative hazard among the observations; the hazard's is the next.
    std::vector<std::size_t> places;
  };
  void lay_out(const population_model& model, int endpoint, double end);

  subject who_;
  std::vector<grid> grids_;
};

}  // namespace varda
