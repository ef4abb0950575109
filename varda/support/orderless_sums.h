// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <Eigen/Core>
#include <cmath>

namespace varda {

// Sums that have the same bits in whatever order and in whatever parts numbers are added. A number
// is split into multiples of three units, 40 bits of it in each, of which so many can be added
// without rounding (after J. Demmel and H. D. Nguyen, "Fast reproducible floating-point summation",
// Proc. 21st IEEE Symposium on Computer Arithmetic (2013) 163-172). What lies below half of the
// smallest unit, 2^-31, is lost; a number that is not finite or larger than `largest` counts as
// that.
class orderless_sums {
 public:
  static constexpr int most_numbers = 1 << 12;
  static constexpr double largest = 0x1p89;

  explicit orderless_sums(Eigen::Index count) : parts_(Eigen::MatrixXd::Zero(3, count)) {}

  // To sum k.
  void add(Eigen::Index k, double number) {
    double rest = std::fabs(number) <= largest ? number : largest;
    for (Eigen::Index p = 0; p < 3; ++p) {
      // Adding so much rounds to multiples of the unit.
      const double rounding = 0x1.8p52 * units[p];
      const double part = (rest + rounding) - rounding;
      parts_(p, k) += part;
      rest -= part;
    }
  }
  void add(const orderless_sums& others) { parts_ += others.parts_; }

  // Three reals for each sum, to be added to those of others.
  Eigen::MatrixXd& parts() { return parts_; }
  Eigen::VectorXd totals() const { return (parts_.row(0) + (parts_.row(1) + parts_.row(2))); }

 private:
  static constexpr double units[] = {0x1p49, 0x1p9, 0x1p-31};
  Eigen::MatrixXd parts_;
};

}  // namespace varda
