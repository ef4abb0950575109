// SPDX-License-Identifier: Apache-2.0
#include "statsubs/estep/proposals.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <boost/math/distributions/laplace.hpp>
#include <boost/math/distributions/normal.hpp>
#include <boost/math/quadrature/gauss_kronrod.hpp>
#include <cmath>
#include <limits>
#include <vector>

#include "statsubs/estep/normal_quantiles.h"
#include "statsubs/support/array.h"

namespace statsubs {
namespace {

using testing::Each;
using testing::ElementsAre;

constexpr double not_a_number = std::numeric_limits<double>::quiet_NaN();
constexpr double infinity = std::numeric_limits<double>::infinity();
const boost::math::normal standard_normal;

// The bound that Acklam gives for the relative error of his approximation.
constexpr double acklam_error = 1.15e-9;

// Probabilities from 1e-300 to 1 - 2^-53, dense about the break points at both ends.
std::vector<double> probabilities() {
  std::vector<double> p;
  for (double x = 1e-300; x < 1e-6; x *= 1e7) p.push_back(x);
  for (int i = 1; i < 2000; ++i) p.push_back(i / 2000.0);
  for (const double centre : {0.02425, 0.97575})
    for (int i = -500; i <= 500; ++i) p.push_back(centre + i * 1e-6);
  for (double x = 0x1p-53; x < 1e-2; x *= 8.0) p.push_back(1.0 - x);
  return p;
}

TEST(Dnorminv, HasThePublishedAccuracy) {
  for (const double p : probabilities()) {
    // From the complement in the upper half, so that nothing is lost to p near 1.
    const double expected =
        p <= 0.5 ? quantile(standard_normal, p) : quantile(complement(standard_normal, 1.0 - p));
    EXPECT_NEAR(dnorminv(p), expected, acklam_error * std::abs(expected)) << p;
  }
}

// At a break point the two rational functions differ by 2e-9, relatively. The values are theirs, by
// mpmath at 40 digits; rounding is magnified near the zeros of the denominator.
TEST(Dnorminv, TakesTheCentralFunctionAtTheBreakPoints) {
  EXPECT_NEAR(dnorminv(0.02425), -1.97296104908465649, 1e-12);
  EXPECT_NEAR(dnorminv(0.97575), 1.97296104908465661, 1e-12);
  EXPECT_NEAR(dnorminv(std::nextafter(0.02425, 0.0)), -1.97296105353096189, 1e-12);
  EXPECT_NEAR(dnorminv(std::nextafter(0.97575, 1.0)), 1.97296105353096201, 1e-12);
}

TEST(Dnorminv, IsFiniteAtAndBeyondTheEnds) {
  for (const double p : {0.0, -0.5, -infinity}) EXPECT_EQ(dnorminv(p), -1e300);
  for (const double p : {1.0, 1.5, infinity}) EXPECT_EQ(dnorminv(p), 1e300);
  EXPECT_TRUE(std::isnan(dnorminv(not_a_number)));
}

// What stands between the columns is left alone.
TEST(NormalQuantiles, AreThoseOfDnorminvInAnyLayout) {
  const std::vector<double> given = probabilities();
  constexpr int rows = 3;
  const int columns = static_cast<int>(given.size()) / 4;
  for (const int leading : {rows, rows + 1}) {
    std::vector<double> z = given;
    normal_quantiles({z.data(), rows, columns, leading});
    for (int at = 0; at < leading * columns; ++at) {
      const double p = given[static_cast<std::size_t>(at)];
      EXPECT_EQ(z[static_cast<std::size_t>(at)], at % leading < rows ? dnorminv(p) : p);
    }
  }
}

TEST(Dexp2sideinv, IsTheLaplaceQuantile) {
  const boost::math::laplace unit_variance(0.0, std::sqrt(0.5));
  for (int i = 1; i < 200; ++i) {
    const double p = i / 200.0;
    const double expected = quantile(unit_variance, p);
    EXPECT_NEAR(dexp2sideinv(p), expected, 2e-14 * (1.0 + std::abs(expected))) << p;
  }
  EXPECT_EQ(dexp2sideinv(0.5), 0.0);
  EXPECT_TRUE(std::signbit(dexp2sideinv(0.5)));
  EXPECT_EQ(dexp2sideinv(0.0), -infinity);
  EXPECT_EQ(dexp2sideinv(1.0), infinity);
}

// Total probability and variance by adaptive quadrature of the right half.
TEST(Densities, IntegrateToOneWithUnitVariance) {
  for (const auto density : {densnormv1, densexp2sidev1}) {
    const auto moment = [density](int power) {
      const auto integrand = [density, power](double x) { return std::pow(x, power) * density(x); };
      return boost::math::quadrature::gauss_kronrod<double, 31>::integrate(integrand, 0.0, infinity,
                                                                           15, 1e-13);
    };
    EXPECT_NEAR(2.0 * moment(0), 1.0, 1e-12);
    EXPECT_NEAR(2.0 * moment(2), 1.0, 1e-12);
    EXPECT_EQ(density(-1.25), density(1.25));
  }
  EXPECT_EQ(densexp2sidev1(0.0), 0.7071067811865476);
}

TEST(Simmn, ReadsTheLowerTriangleOnly) {
  const double no = not_a_number;
  const double l[] = {11, 21, 31, no, no, 22, 32, no, no, no, 33, no};  // leading dimension 4
  const double mu[] = {1.0, 2.0, 3.0};
  const double z[] = {1.0, -1.0, 2.0};
  std::vector<double> eta(3, 9.0);
  simmn(0, mu, l, 4, z, eta.data());
  EXPECT_THAT(eta, Each(9.0));
  simmn(3, mu, l, 4, z, eta.data());
  EXPECT_THAT(eta, ElementsAre(1 + 11, 2 + 21 - 22, 3 + 31 - 32 + 66));
}

// Far from the origin, where the mean of the squares minus the square of the mean would lose all
// figures; deviations (-1, 2), (0, -2), (1, 0) with weights 1/4, 1/4, 1/2 after the mean is off.
TEST(Discretestat, GivesMomentsAboutTheMean) {
  constexpr double far = 0x1p40;
  const double x[] = {far - 1, far + 2, -7, far, far - 2, -7, far + 1, far, -7};  // ldx = 3
  const double w[] = {0.25, 0.25, 0.5};
  double mean[2];
  std::vector<double> cov(6, 7.0);  // ldc = 3
  discretestat(3, 2, x, 3, w, mean, cov.data(), 3);
  EXPECT_THAT(mean, ElementsAre(far + 0.25, far));
  const double variance = 0.25 * 1.25 * 1.25 + 0.25 * 0.25 * 0.25 + 0.5 * 0.75 * 0.75;
  EXPECT_THAT(cov, ElementsAre(variance, -0.5, 7.0, -0.5, 2.0, 7.0));
}

// Rows are worked on in pairs and samples a few at a time; every dimension and number of samples
// has to give the sums in their plain order, to the last bit.
TEST(SampleRoutines, KeepTheOrderOfEverySum) {
  double state = 0.5;
  const auto next = [&] { return state = 3.9 * state * (1.0 - state); };
  for (int n = 1; n <= 5; ++n)
    for (const int m : {1, 2, 7, 8, 9, 24, 37}) {
      std::vector<double> x(n * m), w(m), l(n * n), mean(n), cov(n * n), eta(n);
      for (auto* values : {&x, &w, &l}) std::generate(values->begin(), values->end(), next);
      discretestat(m, n, x.data(), n, w.data(), mean.data(), cov.data(), n);
      simmn(n, mean.data(), l.data(), n, x.data(), eta.data());
      for (int i = 0; i < n; ++i) {
        double expected = 0.0;
        for (int j = 0; j < m; ++j) expected += w[j] * x[i + j * n];
        EXPECT_EQ(mean[i], expected);
        for (int j = 0; j <= i; ++j) expected += l[i + j * n] * x[j];
        EXPECT_EQ(eta[i], expected);
        for (int k = 0; k < n; ++k) {
          double product = 0.0;
          for (int j = 0; j < m; ++j)
            product += w[j] * (x[std::min(i, k) + j * n] - mean[std::min(i, k)]) *
                       (x[std::max(i, k) + j * n] - mean[std::max(i, k)]);
          EXPECT_EQ(cov[i + k * n], product);
        }
      }
    }
}

}  // namespace
}  // namespace statsubs
