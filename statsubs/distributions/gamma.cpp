// SPDX-License-Identifier: Apache-2.0
#include "statsubs/distributions/gamma.h"

#include <cmath>

#include "statsubs/distributions/machine.h"
#include "statsubs/distributions/polynomial.h"
#include "statsubs/distributions/rational_function.h"

namespace statsubs {

namespace {

// Gamma(1 + x), 0 <= x < 1.
constexpr rational_function gamma_of_one_plus({1.0, 0.553413866010467, 0.279648642639792,
                                               0.730981088720487e-1, 0.204493667594920e-1,
                                               0.261939260042690e-2, 0.539637273585445e-3},
                                              {1.0, 0.113062953091122e1, -0.567902761974940e-1,
                                               -0.170458969313360, 0.225211131035340e-1,
                                               0.470059485860584e-2, -0.832979206704073e-3});

// ln Gamma(1 + a) / -a, -0.2 <= a < 0.6, and ln Gamma(2 + x) / x, -0.4 <= x <= 0.25; of one length,
// so that the second is a subscript away from the first.
constexpr rational_function<7> log_gamma[] = {
    {{0.577215664901533, 0.844203922187225, -0.168860593646662, -0.780427615533591,
      -0.402055799310489, -0.0673562214325671, -0.00271935708322958},
     {1.0, 2.88743195473681, 3.12755088914843, 1.56875193295039, 0.361951990101499,
      0.0325038868253937, 0.000667465618796164}},
    {{0.422784335098467, 0.848044614534529, 0.565221050691933, 0.156513060486551, 0.017050248402265,
      0.000497958207639485, 0.0},
     {1.0, 1.24313399877507, 0.548042109832463, 0.10155218743983, 0.00713309612391,
      0.000116165475989616}}};

// ln Gamma(1 + a), -0.2 <= a <= 1.25, by subscripts instead of a branch: in gamln the argument
// falls on either side of 0.6 as it happens.
inline double log_gamma_of_one_plus(double a) {
  static constexpr double shift[] = {0.0, 1.0};
  static constexpr double sign[] = {-1.0, 1.0};
  const int near_one = a < 0.6 ? 0 : 1;
  const double x = a - shift[near_one];
  return sign[near_one] * x * log_gamma[near_one](x);
}

// |a| < 15: the recurrence carries the argument into [1, 2].
double gamma_by_recurrence(double a) {
  double x = a;
  double product = 1.0;
  if (a >= 1.0) {
    for (x -= 1.0; x >= 1.0; x -= 1.0) product *= x;
    return gamma_of_one_plus(x) * product;
  }
  product = a;
  while (x < 0.0) {
    x += 1.0;
    product *= x;
  }
  // Zero at a pole, and too small to invert close to the one at 0.
  if (std::fabs(product) * spmpar(3) <= 1.0001) return 0.0;
  return gamma_of_one_plus(x) / product;
}

// |a| >= 15: Stirling's series. x^(x - 1/2) is formed from two equal factors, so that neither the
// rounding of a large exponent nor an early overflow enters.
double gamma_by_stirling(double a) {
  constexpr double pi = 3.14159265358979323846;
  constexpr double sqrt_two_pi = 2.50662827463100050242;
  constexpr double r[] = {0.833333333333333e-1, -0.277777777770481e-2, 0.793650663183693e-3,
                          -0.595156336428591e-3, 0.820756370353826e-3};
  const double x = std::fabs(a);
  const double correction = sqrt_two_pi * std::exp(polynomial(r, 1.0 / (x * x)) / x);
  const double root = std::pow(x, 0.5 * x - 0.25);
  if (std::isinf(root)) return 0.0;
  if (a > 0.0) {
    const double value = root * (root * (std::exp(-x) * correction));
    return std::isinf(value) ? 0.0 : value;
  }
  // Reflection: Gamma(-x) = -pi / (x sin(pi x) Gamma(x)).
  const double whole = std::trunc(x);
  const double fraction = x - whole;
  if (fraction == 0.0) return 0.0;
  const double sine = std::sin(pi * (fraction > 0.5 ? 1.0 - fraction : fraction));
  const double size = pi * (std::exp(x) / root) / (correction * x * sine) / root;
  return std::fmod(whole, 2.0) == 0.0 ? -size : size;
}

}  // namespace

double gamma(const double& a) {
  const double size = std::fabs(a);
  if (size < 15.0) return gamma_by_recurrence(a);
  if (size >= 1000.0) return 0.0;
  return gamma_by_stirling(a);
}

double gamln1(const double& a) {
  return log_gamma_of_one_plus(a);
}

namespace {

// (a - 1) (a - 2) ... down to the last factor that is not below 1.25, for 2.25 <= a < 10. The other
// factors of the eight count as 1: no loop of a length that is different at every call.
double falling_product(double a) {
  using lanes = double __attribute__((vector_size(16)));
  constexpr lanes least = {1.25, 1.25};
  constexpr lanes one = {1.0, 1.0};
  lanes factor = lanes{a, a} - lanes{1.0, 2.0};
  lanes product = factor >= least ? factor : one;
  for (int i = 0; i < 3; ++i) {
    factor -= lanes{2.0, 2.0};
    product *= factor >= least ? factor : one;
  }
  return product[0] * product[1];
}

}  // namespace

double gamln(const double& a) {
  constexpr double d = 0.418938533204673;  // (ln(2 pi) - 1) / 2
  constexpr double c[] = {0.0833333333333333,   -0.00277777777760991, 0.00079365066682539,
                          -0.00059520293135187, 0.000837308034031215, -0.00165322962780713};
  if (a <= 0.8) return log_gamma_of_one_plus(a) - std::log(a);
  if (a <= 2.25) return log_gamma_of_one_plus((a - 0.5) - 0.5);
  if (a < 10.0) {
    const double n = static_cast<int>(a - 1.25);
    return log_gamma_of_one_plus((a - n) - 1.0) + std::log(falling_product(a));
  }
  const double inverse = 1.0 / a;
  return (d + polynomial(c, inverse * inverse) * inverse) + (a - 0.5) * (std::log(a) - 1.0);
}

double gam1(const double& a) {
  static constexpr rational_function above(
      {0.577215664901533, -0.409078193005776, -0.230975380857675, 0.0597275330452234,
       0.0076696818164949, -0.00514889771323592, 0.000589597428611429},
      {1.0, 0.427569613095214, 0.158451672430138, 0.0261132021441447, 0.00423244297896961});
  static constexpr rational_function below(
      {-0.422784335098468, -0.771330383816272, -0.244757765222226, 0.118378989872749,
       0.000930357293360349, -0.0118290993445146, 0.00223047661158249, 0.000266505979058923,
       -0.000132674909766242},
      {1.0, 0.273076135303957, 0.0559398236957378});
  const bool near_one = a > 0.5;
  const double t = near_one ? (a - 0.5) - 0.5 : a;
  if (t == 0.0) return 0.0;
  if (t > 0.0) {
    const double w = above(t);
    return near_one ? (t / a) * ((w - 0.5) - 0.5) : a * w;
  }
  const double w = below(t);
  return near_one ? t * w / a : a * ((w + 0.5) + 0.5);
}

}  // namespace statsubs
