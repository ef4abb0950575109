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

TEST(Getghnodes, IsSymmetricAscendingAndOfTheRightMassForEveryCount) {
  for (int n = 1; n <= most_ghnodes; ++n) {
    const rule r(n);
    double mass = 0.0;
    for (std::size_t j = 0; j < r.nodes.size(); ++j) {
      EXPECT_EQ(r.nodes[j], -r.nodes[r.nodes.size() - 1 - j]);
      EXPECT_EQ(r.weights[j], r.weights[r.nodes.size() - 1 - j]);
      EXPECT_TRUE(j == 0 || r.nodes[j] > r.nodes[j - 1]);
      mass += r.weights[j];
    }
    EXPECT_NEAR(mass, std::sqrt(M_PI), 1e-14) << n;
  }
}

}  // namespace
}  // namespace statsubs
