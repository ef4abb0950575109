// SPDX-License-Identifier: Apache-2.0
#include "statsubs/distributions/cdfchi.h"

#include <algorithm>
#include <cmath>
#include <limits>

#include "statsubs/distributions/dinvr.h"
#include "statsubs/distributions/gratio.h"
#include "statsubs/distributions/machine.h"

namespace statsubs {

namespace {

enum : int { probabilities = 1, argument = 2, freedom = 3 };

enum : int {
  success = 0,
  bad_which = -1,
  bad_p = -2,
  bad_q = -3,
  bad_x = -4,
  bad_df = -5,
  below_range = 1,
  above_range = 2,
  bad_sum = 3,
  no_value = 10
};

// A failure of the incomplete gamma ratio shows as the probability 2.
constexpr double largest_probability = 1.5;

struct verdict {
  int status = success;
  double bound = 0.0;
};

verdict check_probabilities(double p, double q) {
  if (!(p >= 0.0 && p <= 1.0)) return {bad_p, p < 0.0 ? 0.0 : 1.0};
  if (!(q > 0.0 && q <= 1.0)) return {bad_q, q <= 0.0 ? 0.0 : 1.0};
  return {};
}

verdict check_x(double x) {
  if (!(x >= 0.0)) return {bad_x, 0.0};
  return {};
}

verdict check_df(double df) {
  if (!(df > 0.0)) return {bad_df, 0.0};
  return {};
}

verdict check_sum(double p, double q) {
  const double sum = p + q;
  if (std::fabs((sum - 0.5) - 0.5) > 3.0 * spmpar(1)) return {bad_sum, sum < 0.0 ? 0.0 : 1.0};
  return {};
}

// The checks in their order; each runs only when all before it have passed.
verdict check_inputs(int which, double p, double q, double x, double df) {
  if (which < probabilities) return {bad_which, 1.0};
  if (which > freedom) return {bad_which, 3.0};
  verdict found;
  if (which != probabilities) found = check_probabilities(p, q);
  if (found.status == success && which != argument) found = check_x(x);
  if (found.status == success && which != freedom) found = check_df(df);
  if (found.status == success && which != probabilities) found = check_sum(p, q);
  return found;
}

// The last two values of a function. The zero finder asks again for both ends of the bracket, which
// are the points that the search asked for last.
class last_two_values {
 public:
  const double* at(double x) const {
    for (const auto& [point, value] : entries_)
      if (point == x) return &value;
    return nullptr;
  }
  void keep(double x, double value) {
    entries_[0] = entries_[1];
    entries_[1] = {x, value};
  }

 private:
  struct entry {
    double point = std::numeric_limits<double>::quiet_NaN();
    double value = 0.0;
  };
  entry entries_[2];
};

// Searches x or df. The smaller probability is matched, for accuracy in the tails.
verdict find(int which, double p, double q, double& x, double& df) {
  constexpr double highest = 1e300;
  const double lowest = which == argument ? 0.0 : 1e-300;
  double& unknown = which == argument ? x : df;
  const bool match_lower = p <= q;
  const double target = std::min(p, q);

  int request = 0;
  double fval = 0.0;
  bool left = false;
  bool high = false;
  last_two_values known;
  unknown = 5.0;
  dstinv(lowest, highest, 0.5, 0.5, 5.0, 1e-50, 1e-8);
  for (dinvr(request, unknown, fval, left, high); request == 1;
       dinvr(request, unknown, fval, left, high)) {
    if (const double* value = known.at(unknown)) {
      fval = *value;
      continue;
    }
    double cum = 0.0;
    double upper = 0.0;
    cumchi(x, df, cum, upper);
    fval = (match_lower ? cum : upper) - target;
    if (fval + target > largest_probability) return {no_value, 0.0};
    known.keep(unknown, fval);
  }
  if (request == 0) return {};
  if (left) return {below_range, lowest};
  return {above_range, highest};
}

}  // namespace

void cdfchi(const int& which, double& p, double& q, double& x, double& df, int& status,
            double& bound) {
  verdict result = check_inputs(which, p, q, x, df);
  if (result.status == success) {
    if (which == probabilities)
      cumchi(x, df, p, q);
    else
      result = find(which, p, q, x, df);
  }
  status = result.status;
  if (status != success && status != no_value) bound = result.bound;
}

}  // namespace statsubs
