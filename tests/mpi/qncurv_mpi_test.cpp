// SPDX-License-Identifier: Apache-2.0
#include "statsubs/stderr/qncurv.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <vector>

#include "statsubs/state/global_variables.h"
#include "statsubs/state/qrpemlocalvariables.h"
#include "statsubs/support/parallel.h"
#include "tests/support/fake_host.h"

namespace statsubs {
namespace {

namespace gv = statsubs::global_variables;
namespace qv = statsubs::qrpemlocalvariables;

constexpr int nsub = 5;
constexpr int order = 2;

void allocate_state() {
  gv::leneta = order;
  gv::newsub.allocate("newsub", nsub + 1);
  for (int i = 1; i <= nsub + 1; ++i) gv::newsub(i) = i;
  gv::cholsub.allocate("cholsub", order * (order + 1) / 2, nsub);
  gv::omegasubnew.allocate("omegasubnew", order, order);
  qv::choleskyfactor.allocate("choleskyfactor", order, order, nsub);
}

// Every subject's column where this process owns it, and nonsense where it does not: the last
// subject's is not even a number.
void fill_columns(int myid, int numprocs) {
  for (int isub = 1; isub <= nsub; ++isub) {
    const double owned[] = {1.0 / isub, 0.1 * isub, 3.0};
    const auto column = gv::cholsub.column(isub);
    if (isub % numprocs == myid)
      std::copy_n(owned, 3, column.begin());
    else
      std::fill(column.begin(), column.end(), isub < nsub ? -1e3 * isub : std::nan(""));
  }
}

std::vector<double> factors() {
  for (int isub = 1; isub <= nsub; ++isub) {
    int info = -1;
    qncurv(isub, info);
    EXPECT_EQ(info, 0) << isub;
  }
  const auto all = qv::choleskyfactor.slice(1).data();
  return {all, all + order * order * nsub};
}

TEST(QncurvInAJob, EveryProcessGetsTheOwnersFactor) {
  test::fake_host host;
  host.table().globalvec = [](double* values, const int& length) {
    support::allreduce_sum(vector_view<double>(values, length), gv::numprocs);
  };
  allocate_state();
  fill_columns(gv::myid, gv::numprocs);
  const std::vector<double> shared = factors();

  const int myid = gv::myid;
  const int numprocs = gv::numprocs;
  gv::myid = 0;
  gv::numprocs = 1;
  fill_columns(gv::myid, gv::numprocs);
  const std::vector<double> alone = factors();
  gv::myid = myid;
  gv::numprocs = numprocs;
  EXPECT_EQ(shared, alone);
}

}  // namespace
}  // namespace statsubs
