// SPDX-License-Identifier: Apache-2.0
#include "bench/accuracy_cases.h"

#include <boost/math/special_functions/erf.hpp>
#include <boost/math/special_functions/expm1.hpp>
#include <boost/math/special_functions/gamma.hpp>
#include <boost/math/special_functions/log1p.hpp>
#include <boost/multiprecision/cpp_bin_float.hpp>
#include <cmath>
#include <limits>
#include <utility>

#include "statsubs/distributions/cumnor.h"
#include "statsubs/distributions/elementary.h"
#include "statsubs/distributions/erf.h"
#include "statsubs/distributions/gamma.h"
#include "statsubs/distributions/gratio.h"

namespace test {

namespace {

using wide = boost::multiprecision::cpp_bin_float_50;
using grid = std::vector<argument>;

// ---- grids: scattered points plus both sides of every switch ----

void add_sides(grid& points, double a, double x) {
  points.push_back({a, std::nextafter(x, -1e300)});
  points.push_back({a, x});
  points.push_back({a, std::nextafter(x, 1e300)});
}

// A sequence of n values in (0, 1) that is even for every n.
double fraction(int i) {
  const double value = 0.6180339887498949 * i;
  return value - std::floor(value);
}

grid linear(double from, double to, int n, const std::vector<double>& switches) {
  grid points;
  for (int i = 1; i <= n; ++i) points.push_back({0.0, from + (to - from) * fraction(i)});
  for (const double x : switches) add_sides(points, 0.0, x);
  return points;
}

grid logarithmic(double from, double to, int n, const std::vector<double>& switches) {
  grid points = linear(std::log(from), std::log(to), n, {});
  for (argument& point : points) point.x = std::exp(point.x);
  for (const double x : switches) add_sides(points, 0.0, x);
  return points;
}

grid join(grid first, const grid& second) {
  first.insert(first.end(), second.begin(), second.end());
  return first;
}

grid mirrored(grid points) {
  for (argument& point : points) point.x = -point.x;
  return points;
}

// For every shape: arguments at which P or Q runs over many powers of ten, and the switches.
grid gamma_plane(const std::vector<double>& shapes, int n) {
  grid points;
  for (const double a : shapes) {
    const double width = std::sqrt(a) + 1.0;
    for (int i = 1; i <= n; ++i) {
      const double t = fraction(i);
      points.push_back({a, a * std::pow(10.0, -30.0 * t * t / width)});
      points.push_back({a, a + (36.0 * t + 640.0 * t * t * t / std::sqrt(width)) * width});
      points.push_back({a, a * std::exp(3.0 * (t - 0.5))});
    }
    for (const double x :
         {0.25, 1.1, 2.59 * a, 2.302585092994046, 31.0, a, 0.6 * a, 1.4 * a, a / 3.0, 3.0 * a})
      add_sides(points, a, x);
  }
  return points;
}

std::vector<double> scattered_shapes(double from, double to, int n, std::vector<double> more) {
  for (const argument& point : logarithmic(from, to, n, {})) more.push_back(point.x);
  return more;
}

// ---- the sweep ----

using function = std::function<double(const argument&)>;
using reference = std::function<wide(const argument&)>;

// Largest relative error where the size of the true value lies in [floor, ceiling).
largest_error sweep(const grid& points, const function& value, const reference& truth, double floor,
                    double ceiling) {
  largest_error worst;
  for (const argument& point : points) {
    const wide exact = truth(point);
    const wide size = abs(exact);
    if (!(size >= floor && size < ceiling)) continue;
    ++worst.points;
    const double computed = value(point);
    const double error = std::isfinite(computed)
                             ? static_cast<double>(abs(wide(computed) / exact - 1))
                             : std::numeric_limits<double>::infinity();
    if (error > worst.error || worst.points == 1) {
      worst.error = error;
      worst.at = point;
    }
  }
  return worst;
}

constexpr double smallest = 1e-290;
constexpr double largest = 1e308;

accuracy_case one_argument(std::string name, std::string range, double bound,
                           std::function<grid(int)> points, double (*value)(const double&),
                           wide (*truth)(const wide&)) {
  return {std::move(name), std::move(range), false, bound, [=](int density) {
            return sweep(
                points(density), [=](const argument& at) { return value(at.x); },
                [=](const argument& at) { return truth(at.x); }, smallest, largest);
          }};
}

// ---- functions of one argument ----

double scaled_erfc(const double& x) {
  return statsubs::erfc1(1, x);
}

double plain_erfc(const double& x) {
  return statsubs::erfc1(0, x);
}

double lower_normal(const double& x) {
  double lower = 0.0;
  double upper = 0.0;
  statsubs::cumnor(x, lower, upper);
  return lower;
}

double upper_normal(const double& x) {
  double lower = 0.0;
  double upper = 0.0;
  statsubs::cumnor(x, lower, upper);
  return upper;
}

wide true_gamma(const wide& a) {
  return boost::math::tgamma(a);
}

wide true_gamln(const wide& a) {
  return boost::math::lgamma(a);
}

wide true_gamln1(const wide& a) {
  return boost::math::log1p(boost::math::tgamma1pm1(a));
}

wide true_gam1(const wide& a) {
  const wide excess = boost::math::tgamma1pm1(a);
  return -excess / (1 + excess);
}

wide true_rexp(const wide& x) {
  return boost::math::expm1(x);
}

wide true_rlog(const wide& x) {
  return x - 1 - log(x);
}

wide true_erf(const wide& x) {
  return boost::math::erf(x);
}

wide true_erfc(const wide& x) {
  return boost::math::erfc(x);
}

wide true_scaled_erfc(const wide& x) {
  return exp(x * x) * boost::math::erfc(x);
}

wide true_lower_normal(const wide& x) {
  return boost::math::erfc(-x / sqrt(wide(2))) / 2;
}

wide true_upper_normal(const wide& x) {
  return boost::math::erfc(x / sqrt(wide(2))) / 2;
}

std::vector<double> whole_numbers(int from, int to) {
  std::vector<double> numbers;
  for (int i = from; i <= to; ++i) numbers.push_back(i);
  return numbers;
}

// Poles are not asked for, their neighbours are.
grid gamma_small(int density) {
  grid points = linear(-15.0, 15.0, 300 * density, {});
  points = join(points, logarithmic(1e-300, 1.0, 20 * density, whole_numbers(1, 14)));
  for (int i = 0; i < 15; ++i) {
    points.push_back({0.0, std::nextafter(-i, -1e300)});
    points.push_back({0.0, std::nextafter(-i, 1e300)});
  }
  return points;
}

grid gamma_large(int density) {
  return join(linear(15.0, 171.6, 200 * density, {15.0, 171.6}),
              linear(-170.6, -15.0, 200 * density, {-15.5, -170.5}));
}

grid gamln_range(int density) {
  return join(join(linear(0.0, 12.0, 300 * density, {0.8, 2.25, 3.25, 10.0}),
                   logarithmic(1e-300, 1e300, 100 * density, {})),
              join(logarithmic(1.0 + 1e-12, 1.2, 20 * density, {}),
                   linear(1.999999, 2.000001, 20 * density, {})));
}

grid near_zeros(double from, double to, const std::vector<double>& switches, int density) {
  grid points =
      join(linear(from, to, 300 * density, switches), logarithmic(1e-30, -from, 20 * density, {}));
  points = join(points, mirrored(logarithmic(1e-30, -from, 20 * density, {})));
  return join(points, linear(1.0 - 1e-6, 1.0 + 1e-6, 20 * density, {}));
}

grid gamln1_range(int density) {
  return near_zeros(-0.2, 1.25, {0.6}, density);
}

grid gam1_range(int density) {
  return near_zeros(-0.5, 1.5, {0.5}, density);
}

grid rexp_range(int density) {
  const grid small = logarithmic(1e-250, 0.2, 50 * density, {0.15});
  return join(join(linear(-700.0, 709.0, 300 * density, {}), small), mirrored(small));
}

grid rlog_range(int density) {
  grid points = join(linear(0.5, 2.0, 300 * density, {0.61, 0.82, 1.18, 1.57}),
                     logarithmic(1e-300, 1e300, 100 * density, {}));
  return join(points, linear(1.0 - 1e-6, 1.0 + 1e-6, 50 * density, {}));
}

grid erf_range(int density) {
  const grid half = join(linear(0.0, 6.0, 300 * density, {0.5, 4.0, 5.8}),
                         logarithmic(1e-280, 1.0, 50 * density, {}));
  return join(half, mirrored(half));
}

grid erfc_range(int density) {
  return linear(-6.0, 25.6, 500 * density, {-5.6, -4.0, -0.5, 0.5, 4.0});
}

grid scaled_erfc_range(int density) {
  return join(linear(-26.0, 30.0, 400 * density, {-5.6, -4.0, -0.5, 0.5, 4.0}),
              logarithmic(30.0, 1e6, 20 * density, {}));
}

grid normal_range(int density) {
  const grid tails = linear(-36.3, 36.3, 500 * density,
                            {-5.656854248, -0.66291, 0.66291, 5.656854248, 0.625, -10.0, -36.25});
  return join(tails, logarithmic(1e-30, 1.0, 20 * density, {}));
}

// ---- incomplete gamma ratios ----

// Boost's regularised functions at 50 digits; the larger one is the complement of the smaller.
std::pair<wide, wide> true_ratios(const wide& a, const wide& x) {
  if (x < a) {
    const wide p = boost::math::gamma_p(a, x);
    return {p, 1 - p};
  }
  const wide q = boost::math::gamma_q(a, x);
  return {1 - q, q};
}

double smaller_ratio(const argument& at) {
  double p = 0.0;
  double q = 0.0;
  statsubs::gratio(at.a, at.x, p, q, 0);
  return std::fmin(p, q);
}

wide true_smaller_ratio(const argument& at) {
  const auto [p, q] = true_ratios(at.a, at.x);
  return p < q ? p : q;
}

double smaller_chi(const argument& at) {
  double p = 0.0;
  double q = 0.0;
  statsubs::cumchi(at.x, at.a, p, q);
  return std::fmin(p, q);
}

wide true_smaller_chi(const argument& at) {
  return true_smaller_ratio({0.5 * at.a, 0.5 * at.x});
}

accuracy_case two_arguments(std::string name, std::string range, double bound,
                            std::function<grid(int)> points, double (*value)(const argument&),
                            wide (*truth)(const argument&), double floor, double ceiling) {
  return {std::move(name), std::move(range), true, bound,
          [=](int density) { return sweep(points(density), value, truth, floor, ceiling); }};
}

grid shapes_below_one(int density) {
  return gamma_plane(scattered_shapes(1e-12, 1.0, 8 * density, {0.5, 0.499999, 0.999999, 0.1}),
                     3 * density);
}

grid shapes_below_twenty(int density) {
  return gamma_plane(
      scattered_shapes(1.0, 20.0, 8 * density, {1.0, 1.5, 2.0, 15.0, 19.5, 1.0000001, 19.999999}),
      3 * density);
}

grid shapes_of_whole_freedom(int density) {
  grid points;
  for (const double freedom : whole_numbers(2, 39)) {
    const double a = 0.5 * freedom;
    points = join(points, gamma_plane({a}, 4 * density));
    for (const double x : {a - std::sqrt(0.7 * a), 700.0, 1000.0}) add_sides(points, a, x);
  }
  return points;
}

grid shapes_to_thousand(int density) {
  return gamma_plane(scattered_shapes(20.0, 1000.0, 8 * density, {20.0, 22.1, 50.0}), 3 * density);
}

grid shapes_to_million(int density) {
  return gamma_plane(scattered_shapes(1e3, 1e6, 6 * density, {}), 2 * density);
}

grid chi_plane(int density) {
  grid points = gamma_plane(
      scattered_shapes(0.01, 1000.0, 10 * density, {1.0, 2.0, 3.0, 4.0, 30.0, 39.0, 40.0}),
      3 * density);
  return points;
}

void add_gratio_cases(std::vector<accuracy_case>& cases) {
  struct band {
    const char* name;
    const char* range;
    grid (*points)(int);
  };
  const band bands[] = {{"gratio_shape_below_1", "a < 1", shapes_below_one},
                        {"gratio_shape_1_to_20", "1 <= a < 20", shapes_below_twenty},
                        {"gratio_whole_freedom", "2a = 2, 3, ..., 39", shapes_of_whole_freedom},
                        {"gratio_shape_20_to_1e3", "20 <= a < 1e3", shapes_to_thousand},
                        {"gratio_shape_1e3_to_1e6", "1e3 <= a < 1e6", shapes_to_million}};
  for (const band& each : bands) {
    const std::string range = each.range;
    cases.push_back(two_arguments(each.name, range + ", min(P, Q) >= 1e-10", 1e-13, each.points,
                                  smaller_ratio, true_smaller_ratio, 1e-10, 1.0));
    cases.push_back(two_arguments(std::string(each.name) + "_tails",
                                  range + ", min(P, Q) >= 1e-280", 5e-13, each.points,
                                  smaller_ratio, true_smaller_ratio, 1e-280, 1e-10));
  }
}

std::vector<accuracy_case> build_cases() {
  std::vector<accuracy_case> cases = {
      one_argument("gamma_small", "|a| < 15", 1e-14, gamma_small, statsubs::gamma, true_gamma),
      one_argument("gamma_large", "15 <= |a| < 171.6", 3e-13, gamma_large, statsubs::gamma,
                   true_gamma),
      one_argument("gamln", "1e-300 < a < 1e300", 1e-14, gamln_range, statsubs::gamln, true_gamln),
      one_argument("gamln1", "-0.2 <= a <= 1.25", 1e-14, gamln1_range, statsubs::gamln1,
                   true_gamln1),
      one_argument("gam1", "-0.5 <= a <= 1.5", 1e-14, gam1_range, statsubs::gam1, true_gam1),
      one_argument("rexp", "-700 <= x <= 709", 1e-14, rexp_range, statsubs::rexp, true_rexp),
      one_argument("rlog", "1e-300 < x < 1e300", 1e-14, rlog_range, statsubs::rlog, true_rlog),
      one_argument("erf", "|x| < 6", 1e-14, erf_range, statsubs::erf, true_erf),
      one_argument("erfc1_plain", "-6 < x < 25.6", 1e-14, erfc_range, plain_erfc, true_erfc),
      one_argument("erfc1_scaled", "-26 < x < 1e6", 1e-14, scaled_erfc_range, scaled_erfc,
                   true_scaled_erfc),
      one_argument("cumnor_result", "|arg| < 36.3", 1e-14, normal_range, lower_normal,
                   true_lower_normal),
      one_argument("cumnor_upper", "|arg| < 36.3", 1e-14, normal_range, upper_normal,
                   true_upper_normal)};
  add_gratio_cases(cases);
  cases.push_back(two_arguments("cumchi", "0.01 <= df < 1e3, min >= 1e-10", 1e-14, chi_plane,
                                smaller_chi, true_smaller_chi, 1e-10, 1.0));
  cases.push_back(two_arguments("cumchi_tails", "0.01 <= df < 1e3, min >= 1e-280", 1e-14, chi_plane,
                                smaller_chi, true_smaller_chi, 1e-280, 1e-10));
  return cases;
}

}  // namespace

const std::vector<accuracy_case>& accuracy_cases() {
  static const std::vector<accuracy_case> cases = build_cases();
  return cases;
}

}  // namespace test
