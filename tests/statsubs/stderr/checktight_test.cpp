// SPDX-License-Identifier: Apache-2.0
#include "statsubs/stderr/checktight.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>

#include "statsubs/state/global_variables.h"
#include "tests/support/fake_host.h"

namespace statsubs {
namespace {

namespace gv = statsubs::global_variables;
using testing::ElementsAre;
using testing::IsEmpty;

// A fixed effect is near a bound within 0.01 of it.
void boundmap(const int& ntheta, const double* theta, double* work) {
  for (int i = 1; i <= ntheta; ++i) {
    EXPECT_EQ(work[i - 1], 0.0);
    const double x = theta[i - 1];
    gv::ibtight(i) = x - gv::thetalo(i) < 0.01 || gv::thetahi(i) - x < 0.01 ? 1 : 0;
  }
}

class Checktight : public testing::Test {
 protected:
  Checktight() {
    std::filesystem::remove_all("vardaengine.log");
    host.table().boundmap = boundmap;
    gv::myid = 0;
    gv::ntheta = 3;
    for (auto* array : {&gv::theta, &gv::thetalo, &gv::thetahi}) array->allocate("theta", 3);
    gv::ibtight.allocate("ibtight", 3);
    std::fill(gv::theta.begin(), gv::theta.end(), 0.5);
    std::fill(gv::thetahi.begin(), gv::thetahi.end(), 1.0);
  }
  ~Checktight() override { std::filesystem::remove_all("vardaengine.log"); }

  test::fake_host host;
  test::captured_unit output;
  const char* warning = " Warning: parameter value near bound";
  int flag = -1;
};

TEST_F(Checktight, ABlockForEveryFixedEffectNearABound) {
  checktight(flag);
  EXPECT_EQ(flag, 0);
  EXPECT_THAT(output.lines(), IsEmpty());
  EXPECT_FALSE(std::filesystem::exists("vardaengine.log"));

  gv::theta(1) = 0.995;
  gv::theta(3) = gv::thetalo(3) = -1234.6;
  for (gv::myid = 1; gv::myid >= 0; --gv::myid) {
    flag = -1;
    checktight(flag);
    EXPECT_EQ(flag, 1);
    EXPECT_EQ(output.lines().empty(), gv::myid == 1);
    EXPECT_EQ(std::filesystem::exists("vardaengine.log"), gv::myid == 0);
  }
  const char* logged = " Warning - following parameter value near bound";
  const char* consequence = " No standard error computation possible";
  const char* header = "    i      Bound low      Parameter (i)    Bound high";
  const char* first = "    1      0.0000E+00      0.9950E+00      0.1000E+01";
  const char* third = "    3     -0.1235E+04     -0.1235E+04      0.1000E+01";
  EXPECT_THAT(output.lines(), ElementsAre(warning, consequence, header, first, warning, consequence,
                                          header, third));
  EXPECT_THAT(test::engine_log_lines(), ElementsAre("", logged, consequence, "", header, first, "",
                                                    logged, consequence, "", header, third));
}

TEST_F(Checktight, WithoutALogTheRestOfTheBlockIsLeftOut) {
  std::filesystem::create_directory("vardaengine.log");
  gv::theta(1) = gv::theta(2) = 1.0;
  checktight(flag);
  EXPECT_EQ(flag, 1);
  EXPECT_THAT(output.lines(), ElementsAre(warning, warning));
}

}  // namespace
}  // namespace statsubs
