// SPDX-License-Identifier: Apache-2.0
#include "statsubs/distributions/elementary.h"

#include <cmath>

#include "statsubs/distributions/polynomial.h"

namespace statsubs {

double rexp(const double& x) {
  constexpr double p[] = {1.0, 0.914041914819518e-9, 0.0238082361044469};
  constexpr double q[] = {1.0, -0.499999999085958, 0.107141568980644, -0.0119041179760821,
                          0.595130811860248e-3};
  if (std::fabs(x) <= 0.15) return x * (polynomial(p, x) / polynomial(q, x));
  const double w = std::exp(x);
  if (x <= 0.0) return (w - 0.5) - 0.5;
  return w * (0.5 + (0.5 - 1.0 / w));
}

double rlog(const double& x) {
  constexpr double at_07 = 0.0566749439387323789;  // the function at 0.7
  constexpr double at_43 = 0.0456512608815524059;  // the function at 4/3
  constexpr double p[] = {0.333333333333333, -0.224696413112536, 0.00620886815375787};
  constexpr double q[] = {1.0, -1.27408923933623, 0.354508718369557};
  if (x < 0.61 || x > 1.57) return ((x - 0.5) - 0.5) - std::log(x);

  // The outer thirds of the range are carried to x near 1 by division by 0.7 and by 4/3.
  double u = (x - 0.5) - 0.5;
  double w1 = 0.0;
  if (x < 0.82) {
    u = (x - 0.7) / 0.7;
    w1 = at_07 - 0.3 * u;
  } else if (x > 1.18) {
    u = 0.75 * x - 1.0;
    w1 = at_43 + u / 3.0;
  }
  const double r = u / (u + 2.0);
  const double t = r * r;
  const double w = polynomial(p, t) / polynomial(q, t);
  return 2.0 * t * (1.0 / (1.0 - r) - r * w) + w1;
}

}  // namespace statsubs
