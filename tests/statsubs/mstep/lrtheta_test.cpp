// SPDX-License-Identifier: Apache-2.0
#include "statsubs/mstep/lrtheta.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <initializer_list>
#include <string>
#include <vector>

#include "statsubs/state/global_variables.h"
#include "statsubs/state/qrpemlocalvariables.h"
#include "tests/support/fake_host.h"

namespace statsubs {
namespace {

namespace gv = statsubs::global_variables;
namespace qv = statsubs::qrpemlocalvariables;
using testing::DoubleNear;
using testing::Each;
using testing::ElementsAre;

// Four subjects with three random effects each. omega = L Lt with the lower factor below, all in
// exact binary numbers.
class Lrtheta : public testing::Test {
 protected:
  Lrtheta() {
    gv::myid = 0;
    gv::leneta = 3;
    gv::nsub = 4;
    gv::omegalcholinv.allocate("omegalcholinv", 3, 3);
    gv::newsub.allocate("newsub", 5);
    gv::omegalchol.allocate("omegalchol", 3, 3);
    set_factor({2, 1, -1, 9, 3, 1, 9, 9, 1.5});  // 9: above the diagonal
    set_newsub({1, 5, 7, 10, 12});
    set_ntheta(5);
    // Three intercepts, a covariate on rows 1 and 3, and a row and a column that are not regressed.
    regress([](double w) {
      return std::vector<double>{1, 0, 0, 5, w, 0, w, 6, 0, 1, 0, 7, 0, 0, 1, 8, 7, 8, 9, 10};
    });
  }

  static void set_factor(std::initializer_list<double> columns) {
    std::copy(columns.begin(), columns.end(), gv::omegalchol.data());
  }
  static void set_newsub(std::initializer_list<int> starts) {
    std::copy(starts.begin(), starts.end(), gv::newsub.begin());
  }

  // Names theta1, theta2, ... and the identity as the map of columns to fixed effects.
  static void set_ntheta(int ntheta) {
    gv::ntheta = ntheta;
    gv::fixedeffectnames.allocate("names", ntheta);
    qv::iseqtheta.allocate("iseqtheta", ntheta);
    qv::itypetheta.allocate("itypetheta", ntheta);
    for (int i = 1; i <= ntheta; ++i) {
      gv::fixedeffectnames(i).fill(' ');
      ("theta" + std::to_string(i)).copy(gv::fixedeffectnames(i).data(), 7);
      qv::iseqtheta(i) = i;
      qv::itypetheta(i) = 1;
    }
  }

  // Has the host give C by its columns, a function of the subject's covariate.
  void regress(const std::function<std::vector<double>(double)>& columns) {
    host.cmatrix = [this, columns](int isub0, double* c) {
      visited.push_back(isub0);
      for (const double entry : columns(covariate.at(isub0))) *c++ = entry;
    };
  }

  std::vector<double> run(const std::vector<int>& map, int nextra = 1, int ncolc = 5, int n = 6,
                          int nrowbase = 3) {
    std::vector<double> atb(gv::ntheta, -99.0);
    lrtheta(n, atb.data(), means.data(), nullptr, nullptr, nrowbase, nextra, ncolc, map.data());
    return atb;
  }

  test::fake_host host;
  test::captured_unit output;
  std::vector<double> covariate = {-1, 0.5, 2, -1.5};
  std::vector<double> means = {1, -2, 0.5, 1.5, 1, -1, -0.5, 2, 3, 2, 0.25, 1};
  std::vector<int> visited;
};

auto near(double expected) {
  return DoubleNear(expected, 1e-14);
}

// Generalised least squares with omega itself, no factor and no whitening, worked out in exact
// rational arithmetic, with the inverse of the lower factor: that is there without regression too.
TEST_F(Lrtheta, IsGeneralisedLeastSquares) {
  EXPECT_THAT(run({1, 2, 3}, 5, 5), Each(0.0));
  EXPECT_TRUE(output.lines().empty() && visited.empty());
  EXPECT_EQ(gv::omegalcholinv(1, 1), 0.5);
  EXPECT_THAT(run({2, 3, 1}), ElementsAre(near(0.875), near(0.22), near(1.0), near(0.3125), 0.0));
  EXPECT_THAT(visited, ElementsAre(0, 1, 2, 3));
  EXPECT_THAT(output.lines(), ElementsAre(testing::StartsWith(" atb from linear regression= ")));
  EXPECT_THAT(qv::itypetheta, Each(1));
  const std::vector<double> inverse(gv::omegalcholinv.data(), gv::omegalcholinv.data() + 9);
  EXPECT_THAT(inverse, ElementsAre(0.5, near(-1.0 / 6), near(4.0 / 9), 0.0, near(1.0 / 3),
                                   near(-2.0 / 9), 0.0, 0.0, near(2.0 / 3)));
}

// Rows of C in the order of the random effects, the last of them without a mu-reference: least
// squares with the leading block of omega. With fewer fixed effects than random ones, intercepts
// for two of these give their averages; row 3 would change the first of them.
TEST_F(Lrtheta, EffectsWithoutReferenceLeaveTheMarginalProblem) {
  regress([](double w) { return std::vector<double>{1, 0, w, 0, 0, 1}; });
  EXPECT_THAT(run({1, 2, 0}, 0, 3, 3, 2),
              ElementsAre(near(1.0), near(-0.73), near(0.3125), 0.0, 0.0));

  set_ntheta(2);
  regress([](double) { return std::vector<double>{1, 0, 4, 0, 1, 0}; });
  EXPECT_THAT(run({1, 2, 3}, 0, 2, 2), ElementsAre(near(1.0), near(0.3125)));
}

// A host that writes what is not zero, of designs that differ from subject to subject, is
// understood as one that writes all of it.
TEST_F(Lrtheta, EverySubjectsMatrixStartsAsZero) {
  const auto design = [](double w) {
    return std::vector<double>{1, 0, 0, w > 0 ? w : 0, 0, w < 0 ? w : 0, 0, 1, 0, 0, 0, 1};
  };
  regress(design);
  const std::vector<double> whole = run({1, 2, 3}, 0, 4);
  host.cmatrix = [&](int isub0, double* c) {
    for (const double entry : design(covariate.at(isub0))) {
      if (entry != 0.0) *c = entry;
      ++c;
    }
  };
  EXPECT_EQ(run({1, 2, 3}, 0, 4), whole);
}

TEST_F(Lrtheta, ASubjectWithoutObservationsCountsForNothing) {
  set_newsub({1, 5, 5, 10, 12});
  const std::vector<double> skipped = run({2, 3, 1});
  EXPECT_THAT(visited, ElementsAre(0, 2, 3));

  gv::nsub = 3;
  means.erase(means.begin() + 3, means.begin() + 6);
  covariate.erase(covariate.begin() + 1);
  set_newsub({1, 5, 10, 12});
  EXPECT_EQ(run({2, 3, 1}), skipped);
  set_newsub({1, 5, 10, 10});
  run({2, 3, 1});
  EXPECT_EQ(gv::nobs, 0) << "set before the test for an empty subject";
}

// omega the identity, columns of C: intercept, nothing, covariate on the second random effect. The
// normal matrix is diag(4, 0, 7.5), its right-hand side (4, 0, 2.125).
TEST_F(Lrtheta, AnUntouchedFixedEffectIsReportedAndMarked) {
  test::remove_engine_log();
  set_factor({1, 0, 0, 0, 1, 0, 0, 0, 1});
  regress([](double w) { return std::vector<double>{1, 0, 0, 0, 0, w}; });
  qv::iseqtheta(2) = 5;
  EXPECT_THAT(run({1, 2, 0}, 0, 3, 4, 2), ElementsAre(1.0, 0.0, 6.125 / 7.5, 0.0, 0.0));
  EXPECT_THAT(qv::itypetheta, ElementsAre(1, 1, 1, 1, 4));
  EXPECT_THAT(output.lines(),
              ElementsAre(" theta5  cannot be handled by linear regression,",
                          " The corresponding C matrix diagonal is zero.",
                          " DPOTRF in lrtheta failed or not possible, forward substitution is used",
                          " atb from linear regression= 1 0 0.8166666666666667"));
  EXPECT_THAT(test::engine_log_lines(),
              ElementsAre(" DPOTRF in lrtheta failed or not possible, forward substitution is used "
                          "instead"));
}

// Two equal columns: the factorisation meets a zero pivot, and forward substitution runs over the
// packed, unfactored matrix ((16, 16), (16, 16)) with the right-hand side (16, 16). The log is
// added to; processes other than the first write nothing.
TEST_F(Lrtheta, ASingularNormalMatrixFallsBack) {
  test::remove_engine_log();
  set_factor({0.5, 0, 0, 0, 0.5, 0, 0, 0, 0.5});
  regress([](double) { return std::vector<double>{1, 1}; });
  host.table().forward_substitution = [](const int& m, const double* a, double* b) {
    EXPECT_EQ(m, 2);
    EXPECT_THAT(std::vector<double>(a, a + 4), ElementsAre(16, 16, 16, 16));
    EXPECT_THAT(std::vector<double>(b, b + 2), ElementsAre(16, 16));
    b[1] = 42.0;
  };
  for (gv::myid = 0; gv::myid < 2; ++gv::myid)
    for (int repetition = 0; repetition < 2; ++repetition)
      EXPECT_THAT(run({1, 0, 0}, 0, 2, 7, 1), ElementsAre(16.0, 42.0, 0.0, 0.0, 0.0));
  EXPECT_EQ(output.lines().size(), 4U);
  EXPECT_EQ(test::engine_log_lines().size(), 2U);
  EXPECT_THAT(qv::itypetheta, Each(1));
}

// L = ((2), (3, 5), (7, 11, 13)) in the first three rows of five; 99 must not be read.
TEST(TriangularProducts, TakeVectorsInPlaceAndRowsNamedByAMap) {
  const double factor[] = {2, 3, 7, 99, 99, 99, 5, 11, 99, 99, 99, 99, 13, 99, 99};
  std::vector<double> x = {1, 10, 100, 1000};
  for (const int m : {3, 0}) {
    ldmaxpv(factor, 5, m, x.data());
    EXPECT_THAT(x, ElementsAre(2, 53, 1417, 1000));
  }

  std::vector<double> rows = {1, 10, 100, 1000, 2, 20, 200, 2000, -1, -1, -1, -1};
  const int permuted[] = {3, 1, 2};
  ldmaxpy(factor, 5, 3, rows.data(), 4, 2, permuted);
  EXPECT_THAT(rows, ElementsAre(305, 841, 200, 1000, 610, 1682, 400, 2000, -1, -1, -1, -1));

  rows = {1, 10, 100};
  for (const auto& map : {std::vector{2, 0, 1}, std::vector{0, 0, 0}}) {
    ldmaxpy(factor, 5, 3, rows.data(), 3, 1, map.data());
    EXPECT_THAT(rows, ElementsAre(83, 20, 100));
  }
}

}  // namespace
}  // namespace statsubs
