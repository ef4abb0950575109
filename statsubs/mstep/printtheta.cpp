// SPDX-License-Identifier: Apache-2.0
#include "statsubs/mstep/printtheta.h"

#include <algorithm>

#include "statsubs/state/entry_check.h"
#include "statsubs/state/global_variables.h"
#include "statsubs/state/output_units.h"
#include "statsubs/support/array.h"
#include "statsubs/support/record.h"

namespace statsubs {

namespace gv = statsubs::global_variables;

void printtheta(const double* thetasforprint, const int& iunit) {
  constexpr int per_record = 4;
  if (gv::myid != 0) return;
  entry_check("printtheta").given("thetasforprint", thetasforprint, gv::ntheta);
  int printed = 0;
  do {
    const int count = std::clamp(gv::ntheta - printed, 0, per_record);
    const vector_view<const double> values(thetasforprint + printed, count);
    write_line(iunit, support::record().values(values).line());
    printed += per_record;
  } while (printed < gv::ntheta);
}

}  // namespace statsubs
