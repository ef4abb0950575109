// SPDX-License-Identifier: Apache-2.0
#pragma once

namespace statsubs {

// Algorithm R of Bus and Dekker, ACM Trans. Math. Softw. 1 (1975), by reverse communication: the
// search never calls f but returns each time it needs a value. One object is one search.
//
// The bracket is [b, c]: b the point with the smaller |f|, c the end opposite in sign. A step is a
// bisection, a secant step or an inverse quadratic step through the last three points.
class zero_finder {
 public:
  // The bracket of the searches to come and the tolerances on the root.
  void set_bracket(double low, double high, double abstol, double reltol);

  // One step; the arguments are those of dzror.
  void advance(int& status, double& x, double fval, double& xlo, double& xhi, bool& atlow,
               bool& fhigh);

 private:
  enum class awaited { low_end, high_end, next_point };

  bool ends_agree(double f_high, bool& atlow, bool& fhigh) const;
  void accept_point(double fval);
  void restart_from(double point, double value);
  void keep_smaller_as_b();
  bool converged();
  double next_step();
  double interpolated_step();

  double low_ = 0.0;
  double high_ = 0.0;
  double abstol_ = 0.0;
  double reltol_ = 0.0;

  awaited awaited_ = awaited::low_end;
  double a_ = 0.0, b_ = 0.0, c_ = 0.0, d_ = 0.0;
  double fa_ = 0.0, fb_ = 0.0, fc_ = 0.0, fd_ = 0.0;
  double tolerance_ = 0.0;
  double to_middle_ = 0.0;  // from b to the middle of the bracket
  double step_ = 0.0;
  int slow_steps_ = 0;  // steps in a row that moved the same end of the bracket
  bool first_ = true;   // no third point yet
};

}  // namespace statsubs
