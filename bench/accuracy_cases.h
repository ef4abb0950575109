// SPDX-License-Identifier: Apache-2.0
//
// Measured accuracy of the special functions against Boost.Math at 50 decimal digits: the
// functions, their ranges and the errors promised. The tests walk coarse grids, the accuracy
// program dense ones.
#pragma once

#include <functional>
#include <string>
#include <vector>

namespace test {

// A place in the plane of a function of two arguments; a function of one uses x alone.
struct argument {
  double a = 0.0;
  double x = 0.0;
};

struct largest_error {
  int points = 0;
  double error = 0.0;  // relative; infinite where a result is not a number
  argument at;
};

struct accuracy_case {
  std::string name;   // letters, digits and underscores
  std::string range;  // for the reader of a table
  bool two_arguments = false;
  double bound = 0.0;
  std::function<largest_error(int density)> sweep;  // density 1 is that of the tests
};

const std::vector<accuracy_case>& accuracy_cases();

}  // namespace test
