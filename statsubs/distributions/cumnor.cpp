// SPDX-License-Identifier: Apache-2.0
#include "statsubs/distributions/cumnor.h"

#include <cmath>
#include <limits>

#include "statsubs/distributions/rational_function.h"

namespace statsubs {

namespace {

// (Phi(x) - 1/2) / x as a function of s = x^2, |x| <= 0.66291.
constexpr rational_function central({18154.981253343561249, 1067.6894854603709582,
                                     161.02823106855587881, 2.2352520354606839287,
                                     0.065682337918207449113},
                                    {45507.789335026729956, 10260.932208618978205,
                                     976.09855173777669322, 47.202581904688241870, 1.0});

// (1 - Phi(y)) exp(y^2 / 2), 0.66291 < y <= sqrt(32).
constexpr rational_function middle_tail(
    {9842.7148383839780218, 11602.651437647350124, 6848.1904505362823326, 2494.5375852903726711,
     597.27027639480026226, 93.506656132177855979, 8.8831497943883759412, 0.39894151208813466764,
     1.0765576773720192317e-8},
    {19685.429676859990727, 38912.003286093271411, 34900.952721145977266, 18615.571640885098091,
     6485.5582982667607550, 1519.3775994075548050, 235.38790178262499861, 22.266688044328115691,
     1.0});

// The same for y > sqrt(32).
double far_tail(double y) {
  constexpr double one_over_sqrt_two_pi = 0.39894228040143267794;
  static constexpr rational_function quotient(
      {2.9112874951168792e-5, 0.001421619193227893466, 0.022235277870649807, 0.1274011611602473639,
       0.21589853405795699, 0.02307344176494017303},
      {7.29751555083966205e-5, 0.00378239633202758244, 0.0659881378689285515, 0.468238212480865118,
       1.28426009614491121, 1.0});
  const double z = 1.0 / (y * y);
  return (one_over_sqrt_two_pi - z * quotient(z)) / y;
}

// exp(-k^2 / 2) at the multiples k = 0.625 m, m = 0 .. 64.
struct exponentials {
  double entry[65];

  constexpr exponentials() : entry{} {
    // exp(-0.625^2 / 2 * 2^j)
    constexpr long double factor[] = {
        0.82257756239866458971384L,     0.676633846161728936684015L,
        0.457833361771614260902147L,    0.20961138715109782252411L,
        0.0439369336234074173267477L,   0.00193045413622770924221351L,
        3.72665317207867099292485e-6L,  1.38879438649640205946618e-11L,
        1.92874984796391778301734e-22L, 3.7200759760208359629597e-44L,
        1.38389652673673753064868e-87L, 1.91516959671400569501984e-174L,
        3.6678745841776872134555e-348L};
    for (int m = 0; m <= 64; ++m) {
      long double value = 1.0L;
      for (int j = 0; j <= 12; ++j)
        if ((m * m >> j) % 2 != 0) value *= factor[j];
      // What a double would hold without a full significand counts as 0.
      entry[m] = value < std::numeric_limits<double>::min() ? 0.0 : static_cast<double>(value);
    }
  }
};

constexpr exponentials at_multiples;

// exp(-y^2 / 2), y = k plus a rest with k = trunc(1.6 y) / 1.6, a multiple of 0.625 whose square is
// exact. 0 from 40 on, far below the smallest number there is.
double exp_of_half_square(double y) {
  if (!(y <= 40.0)) return y > 40.0 ? 0.0 : y;
  const int m = static_cast<int>(1.6 * y);
  const double k = 0.625 * m;
  const double rest = (y - k) * (y + k);
  return at_multiples.entry[m] * std::exp(-0.5 * rest);
}

double unless_subnormal(double value) {
  return value < std::numeric_limits<double>::min() ? 0.0 : value;
}

}  // namespace

void cumnor(const double& arg, double& result, double& upper) {
  constexpr double root_32 = 5.656854248;
  const double x = arg;
  const double y = std::fabs(x);
  if (y <= 0.66291) {
    const double term = x * central(x * x);
    result = 0.5 + term;
    upper = 0.5 - term;
    return;
  }
  const double scaled_tail = y <= root_32 ? middle_tail(y) : far_tail(y);
  const double tail = unless_subnormal(scaled_tail * exp_of_half_square(y));
  // By subscript, since the sign of x is anybody's guess to a branch.
  const double sides[] = {tail, 0.5 + (0.5 - tail)};
  const int positive = x > 0.0 ? 1 : 0;
  result = sides[positive];
  upper = sides[1 - positive];
}

}  // namespace statsubs
