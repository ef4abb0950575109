// SPDX-License-Identifier: Apache-2.0
//
// A host that is a set of C functions in the program itself, found by their names.
#include <gtest/gtest.h>

#include "statsubs/state/host.h"

extern "C" {
void fcnxeta(const int& n, const double* eta, double& f);
int getntheta();
int isgoodr8(const double& x);
}

void fcnxeta(const int& n, const double* eta, double& f) {
  f = 0.0;
  for (int i = 0; i < n; ++i) f += eta[i] * eta[i];
}

int getntheta() {
  return 17;
}

// Takes the place of the default, which would accept 1e9.
int isgoodr8(const double& x) {
  return x < 1e6 ? 1 : 0;
}

namespace statsubs {
namespace {

TEST(HostByNameDeathTest, FindsTheProgramsFunctionsAndKeepsTheDefaultsOfTheOthers) {
  install_host_by_name();
  const double eta[] = {3.0, 4.0};
  double f = 0.0;
  host::fcnxeta(2, eta, f);
  EXPECT_EQ(f, 25.0);
  EXPECT_EQ(host::getntheta(), 17);
  EXPECT_EQ(host::isgoodr8(1e9), 0);

  EXPECT_EQ(host::pow(2.0, 10.0), 1024.0) << "not the C library's function of that name";
  const int values[] = {5, 6, 7};
  EXPECT_EQ(host::findloc1ddim1_i32(values, 3, 6), 2);
  EXPECT_DEATH(host::setisub(1), "setisub");
}

}  // namespace
}  // namespace statsubs
