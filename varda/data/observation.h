// SPDX-License-Identifier: Apache-2.0
#pragma once

namespace varda {

// What is known of a value y: it was observed, or lies below `value`, above it, or between `limit`
// and `value`. Of an event it is the time that is known: `time` for its value.
enum class censoring { none, left, right, interval };

struct observation {
  double time = 0.0;
  double value = 0.0;
  double limit = 0.0;  // lower end, for censoring::interval
  censoring censored = censoring::none;
  int endpoint = 0;  // position among the model's endpoints
  int segment = 0;   // of the subject, in force at the observation
  int row = 0;
  // What is predicted for it: 0 what its density takes, above that a quantity of its endpoint's law
  // (varda/model/equations/outcome_formulas.h).
  int quantity = 0;
  // Of an event: since when the subject has been at risk of it, and where the states of then and of
  // `limit` are found: an observation's position, or from the number of observations on an
  // instant's; -1 for the beginning of the timeline.
  double begin = 0.0;
  int at_begin = -1;
  int at_limit = -1;
};

}  // namespace varda
