// SPDX-License-Identifier: Apache-2.0
#pragma once

namespace varda {

// What is known of a value y: it was observed, or lies below `value`, above it, or between `limit`
// and `value`.
enum class censoring { none, left, right, interval };

struct observation {
  double time = 0.0;
  double value = 0.0;
  double limit = 0.0;  // lower end, for censoring::interval
  censoring censored = censoring::none;
  int endpoint = 0;  // position among the model's endpoints
  int segment = 0;   // of the subject, in force at the observation
  int row = 0;
};

}  // namespace varda
