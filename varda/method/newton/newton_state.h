// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <Eigen/Core>
#include <string>
#include <vector>

#include "varda/host/draws.h"

namespace varda {

// What a Newton step needs from the last one, beside the parameters in force.
struct newton_state {
  bool started = false;
  int draws = 0;          // that have been made
  int samples = 0;        // of the next draw, a subject
  int vain = 0;           // draws in a row that would not come to a verdict with all points
  bool checked = false;   // for modes without points in them
  int removals = 0;       // times that the steps went on without a direction
  int resumptions = 0;    // after fresh points saw a gain at the estimates
  bool inflated = false;  // a stationary point near a singular omega has been left once
  std::vector<draw_mixture> proposals;  // by subject
  std::vector<int> repairs;             // of each subject's proposal
  std::vector<double> tails;  // of each subject's weights: the heaviest shape that has been seen
  // The last draw's verdict in figures.
  double gain_ahead = 0.0;
  double noise = 0.0;
  bool arrived = false;
  std::vector<int> sick;                // subjects (from 0)
  double most_failed = 0.0;             // share of a subject's samples
  std::vector<std::string> singular;    // what makes omega singular
  std::vector<std::string> indistinct;  // what cannot be told from 0
  std::vector<int> held;                // positions in theta at a bound
  std::string trouble;                  // what ended the steps without a verdict

  template <class A>
  void visit(A& archive) {
    archive(started, draws, samples, vain, checked, removals, resumptions, inflated, proposals,
            repairs, tails, gain_ahead, noise, arrived, sick, most_failed, singular, indistinct,
            held, trouble);
  }
};

}  // namespace varda
