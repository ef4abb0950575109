// SPDX-License-Identifier: Apache-2.0
#include "statsubs/distributions/zero_finder.h"

#include <algorithm>
#include <cmath>

namespace statsubs {

namespace {

enum : int { no_sign_change = -1, done = 0, wants_value = 1 };

}  // namespace

void zero_finder::set_bracket(double low, double high, double abstol, double reltol) {
  low_ = low;
  high_ = high;
  abstol_ = abstol;
  reltol_ = reltol;
}

void zero_finder::advance(int& status, double& x, double fval, double& xlo, double& xhi,
                          bool& atlow, bool& fhigh) {
  if (status != wants_value) {
    xlo = low_;
    xhi = high_;
    b_ = low_;
    x = xlo;
    awaited_ = awaited::low_end;
    status = wants_value;
    return;
  }
  switch (awaited_) {
    case awaited::low_end:
      fb_ = fval;
      a_ = high_;
      x = high_;
      awaited_ = awaited::high_end;
      return;
    case awaited::high_end:
      if (ends_agree(fval, atlow, fhigh)) {
        status = no_sign_change;
        return;
      }
      fa_ = fval;
      first_ = true;
      restart_from(a_, fa_);
      break;
    case awaited::next_point:
      accept_point(fval);
      break;
  }
  keep_smaller_as_b();
  xlo = b_;
  if (converged()) {
    xhi = c_;
    status = done;
    return;
  }
  step_ = next_step();
  d_ = a_;
  fd_ = fa_;
  a_ = b_;
  fa_ = fb_;
  b_ += step_;
  xlo = b_;
  x = xlo;
  awaited_ = awaited::next_point;
}

bool zero_finder::ends_agree(double f_high, bool& atlow, bool& fhigh) const {
  const bool both_negative = fb_ < 0.0 && f_high < 0.0;
  const bool both_positive = fb_ > 0.0 && f_high > 0.0;
  if (!both_negative && !both_positive) return false;
  atlow = std::fabs(fb_) < std::fabs(f_high);
  fhigh = both_positive;
  return true;
}

void zero_finder::accept_point(double fval) {
  fb_ = fval;
  if (fb_ * fc_ < 0.0) {
    slow_steps_ = step_ == to_middle_ ? 0 : slow_steps_ + 1;
  } else {
    restart_from(a_, fa_);
  }
}

void zero_finder::restart_from(double point, double value) {
  c_ = point;
  fc_ = value;
  slow_steps_ = 0;
}

void zero_finder::keep_smaller_as_b() {
  if (!(std::fabs(fc_) < std::fabs(fb_))) return;
  if (c_ != a_) {
    d_ = a_;
    fd_ = fa_;
  }
  a_ = b_;
  fa_ = fb_;
  b_ = c_;
  fb_ = fc_;
  c_ = a_;
  fc_ = fa_;
}

bool zero_finder::converged() {
  tolerance_ = std::max(abstol_, reltol_ * std::fabs(b_));
  to_middle_ = (c_ + b_) * 0.5 - b_;
  return std::fabs(to_middle_) <= tolerance_ * 0.5;
}

double zero_finder::next_step() {
  return slow_steps_ > 3 ? to_middle_ : interpolated_step();
}

// p / q is the interpolated step, held between the smallest step allowed and the middle of the
// bracket without dividing first.
double zero_finder::interpolated_step() {
  const double smallest = std::copysign(0.5 * tolerance_, to_middle_);
  double p = (b_ - a_) * fb_;
  double q = fa_ - fb_;
  if (first_) {
    first_ = false;
  } else {
    const double slope_da = (fd_ - fa_) / (d_ - a_);
    const double slope_db = (fd_ - fb_) / (d_ - b_);
    p *= slope_da;
    q = slope_db * fa_ - slope_da * fb_;
  }
  if (p < 0.0) {
    p = -p;
    q = -q;
  }
  if (slow_steps_ == 3) p *= 2.0;
  if (p == 0.0 || p <= smallest * q) return smallest;
  return p < to_middle_ * q ? p / q : to_middle_;
}

}  // namespace statsubs
