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

// The factors of all subjects. A column is the subject's own where the process numbered myid owns
// it and nonsense where it does not: the last subject's is not even a number.
std::vector<double> factors(int myid, int numprocs) {
  gv::myid = myid;
  gv::numprocs = numprocs;
  qv::choleskyfactor.allocate("choleskyfactor", 2, 2, nsub);
  for (int isub = 1; isub <= nsub; ++isub) {
    const std::vector<double> owned = {1.0 / isub, 0.1 * isub, 3.0};
    const std::vector<double> nonsense(3, isub < nsub ? -1e3 * isub : std::nan(""));
    const std::vector<double>& column = isub % numprocs == myid ? owned : nonsense;
    std::copy(column.begin(), column.end(), gv::cholsub.column(isub).begin());
    int info = -1;
    qncurv(isub, info);
    EXPECT_EQ(info, 0) << isub;
  }
  return {qv::choleskyfactor.data(), qv::choleskyfactor.data() + 4 * nsub};
}

TEST(QncurvInAJob, EveryProcessGetsTheOwnersFactor) {
  test::fake_host host;
  host.table().globalvec = [](double* values, const int& length) {
    support::allreduce_sum(vector_view<double>(values, length), gv::numprocs);
  };
  gv::leneta = 2;
  gv::newsub.allocate("newsub", nsub + 1);
  for (int i = 1; i <= nsub + 1; ++i) gv::newsub(i) = i;
  gv::cholsub.allocate("cholsub", 3, nsub);
  gv::omegasubnew.allocate("omegasubnew", 2, 2);
  const int myid = gv::myid;
  const int numprocs = gv::numprocs;
  const std::vector<double> alone = factors(0, 1);
  EXPECT_EQ(factors(myid, numprocs), alone);
}

}  // namespace
}  // namespace statsubs
