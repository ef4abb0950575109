// SPDX-License-Identifier: Apache-2.0
#include "statsubs/distributions/cumnor.h"

#include <cmath>

#include "statsubs/distributions/machine.h"
#include "statsubs/distributions/polynomial.h"

namespace statsubs {

namespace {

// (Phi(x) - 1/2) / x as a function of s = x^2, |x| <= 0.66291.
double central(double s) {
  constexpr double a[] = {18154.981253343561249, 1067.6894854603709582, 161.02823106855587881,
                          2.2352520354606839287, 0.065682337918207449113};
  constexpr double b[] = {45507.789335026729956, 10260.932208618978205, 976.09855173777669322,
                          47.202581904688241870, 1.0};
  return polynomial(a, s) / polynomial(b, s);
}

// (1 - Phi(y)) exp(y^2 / 2), 0.66291 < y <= sqrt(32).
double middle_tail(double y) {
  constexpr double c[] = {9842.7148383839780218, 11602.651437647350124,  6848.1904505362823326,
                          2494.5375852903726711, 597.27027639480026226,  93.506656132177855979,
                          8.8831497943883759412, 0.39894151208813466764, 1.0765576773720192317e-8};
  constexpr double d[] = {19685.429676859990727, 38912.003286093271411, 34900.952721145977266,
                          18615.571640885098091, 6485.5582982667607550, 1519.3775994075548050,
                          235.38790178262499861, 22.266688044328115691, 1.0};
  return polynomial(c, y) / polynomial(d, y);
}

// The same for y > sqrt(32).
double far_tail(double y) {
  constexpr double one_over_sqrt_two_pi = 0.39894228040143267794;
  constexpr double p[] = {2.9112874951168792e-5, 0.001421619193227893466, 0.022235277870649807,
                          0.1274011611602473639, 0.21589853405795699,     0.02307344176494017303};
  constexpr double q[] = {7.29751555083966205e-5, 0.00378239633202758244, 0.0659881378689285515,
                          0.468238212480865118,   1.28426009614491121,    1.0};
  const double z = 1.0 / (y * y);
  return (one_over_sqrt_two_pi - z * polynomial(p, z) / polynomial(q, z)) / y;
}

// exp(-y^2 / 2), y = trunc(1.6 y) / 1.6 plus a rest: the first is a multiple of 0.625, and its
// square exact. 0 from 40 on, far below the smallest number there is.
double exp_of_half_square(double y) {
  if (!(y <= 40.0)) return y > 40.0 ? 0.0 : y;
  const double k = 0.625 * static_cast<int>(1.6 * y);
  const double rest = (y - k) * (y + k);
  return std::exp(-0.5 * k * k) * std::exp(-0.5 * rest);
}

}  // namespace

void cumnor(const double& arg, double& result, double& upper) {
  constexpr double root_32 = 5.656854248;
  const double x = arg;
  const double y = std::fabs(x);
  if (y <= 0.66291) {
    const double term = x * central(y > 0.5 * spmpar(1) ? x * x : 0.0);
    result = 0.5 + term;
    upper = 0.5 - term;
  } else {
    const double tail = (y <= root_32 ? middle_tail(y) : far_tail(y)) * exp_of_half_square(y);
    const double body = 0.5 + (0.5 - tail);
    result = x > 0.0 ? body : tail;
    upper = x > 0.0 ? tail : body;
  }
  if (result < spmpar(2)) result = 0.0;
  if (upper < spmpar(2)) upper = 0.0;
}

}  // namespace statsubs
