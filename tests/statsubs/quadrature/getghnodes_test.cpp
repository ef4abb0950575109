// SPDX-License-Identifier: Apache-2.0
#include "statsubs/quadrature/getghnodes.h"

#include <gtest/gtest.h>

#include <cmath>
#include <fstream>
#include <string>
#include <vector>

namespace statsubs {
namespace {

struct rule {
  explicit rule(int n) : nodes(static_cast<std::size_t>(n)), weights(static_cast<std::size_t>(n)) {
    getghnodes(n, nodes.data(), weights.data(), info);
  }
  std::vector<double> nodes, weights;
  int info = -9;
};

TEST(Getghnodes, MatchesRulesOfFiftyDigits) {
  std::ifstream file(HERMITE_RULES);
  std::string remark;
  std::getline(file, remark);
  int n = 0;
  double node = 0.0;
  double weight = 0.0;
  int rows = 0;
  for (int last = 0, j = 0; file >> n >> node >> weight; ++rows, last = n) {
    j = n == last ? j + 1 : n / 2;
    const rule r(n);
    const auto at = static_cast<std::size_t>(j);
    EXPECT_EQ(r.info, 0);
    EXPECT_NEAR(r.nodes[at], node, 1e-14 * node) << n;
    EXPECT_NEAR(r.weights[at], weight, std::fmin(1e-14, 1e-12 * weight)) << n;
  }
  EXPECT_EQ(rows, 98);
}

TEST(Getghnodes, IsSymmetricAndIntegratesPolynomials) {
  for (int n = 1; n <= most_ghnodes; ++n) {
    const rule r(n);
    double mass = 0.0;
    double highest = 0.0;  // the moment of order 2 n - 2, over its value Gamma(n - 1/2)
    for (int j = 0; j < n; ++j) {
      const auto at = static_cast<std::size_t>(j);
      const auto mirrored = static_cast<std::size_t>(n - 1 - j);
      EXPECT_EQ(r.nodes[at], -r.nodes[mirrored]);
      EXPECT_EQ(r.weights[at], r.weights[mirrored]);
      EXPECT_TRUE(j == 0 || r.nodes[at] > r.nodes[at - 1]);
      mass += r.weights[at];
      highest += r.weights[at] *
                 std::exp((n - 1) * std::log(r.nodes[at] * r.nodes[at]) - std::lgamma(n - 0.5));
    }
    EXPECT_NEAR(mass, std::sqrt(M_PI), 1e-14) << n;
    EXPECT_NEAR(n == 1 ? 1.0 : highest, 1.0, 1e-12) << n;
  }
}

TEST(Getghnodes, RefusesOtherCounts) {
  for (const int n : {-1, 0, most_ghnodes + 1}) {
    int info = 0;
    getghnodes(n, nullptr, nullptr, info);
    EXPECT_EQ(info, -1);
  }
}

}  // namespace
}  // namespace statsubs
