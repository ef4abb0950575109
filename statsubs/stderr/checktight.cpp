// SPDX-License-Identifier: Apache-2.0
#include "statsubs/stderr/checktight.h"

#include <string>

#include "statsubs/state/entry_check.h"
#include "statsubs/state/global_variables.h"
#include "statsubs/state/host.h"
#include "statsubs/state/output_units.h"
#include "statsubs/support/array.h"
#include "statsubs/support/engine_log.h"
#include "statsubs/support/record.h"

namespace statsubs {

namespace gv = statsubs::global_variables;

namespace {

void print(const std::string& line) {
  write_line(standard_output_unit, line);
}

std::string text_line(const char* text) {
  return support::record().text(text).line();
}

std::string bounds_row(int i) {
  const auto number = [](double value) { return support::exponent_field(value, 16, 4); };
  return support::integer_field(i, 5) + number(gv::thetalo(i)) + number(gv::theta(i)) +
         number(gv::thetahi(i));
}

// One fixed effect's block. A log that fails after its second line is not noticed.
void warn(int i) {
  support::engine_log log(support::engine_log::position::append);
  print(text_line("Warning: parameter value near bound"));
  if (!log.write("") || !log.write(text_line("Warning - following parameter value near bound")))
    return;
  const std::string consequence = text_line("No standard error computation possible");
  log.write(consequence);
  print(consequence);
  log.write("");
  for (const std::string& line :
       {text_line("   i      Bound low      Parameter (i)    Bound high"), bounds_row(i)}) {
    print(line);
    log.write(line);
  }
}

void check_entry() {
  const entry_check check("checktight");
  check.at_least("ntheta", gv::ntheta, 0);
  check.holds("theta", gv::theta, gv::ntheta);
  check.holds("thetalo", gv::thetalo, gv::ntheta);
  check.holds("thetahi", gv::thetahi, gv::ntheta);
  check.holds("ibtight", gv::ibtight, gv::ntheta);
}

}  // namespace

void checktight(int& flag) {
  check_entry();
  flag = 0;
  vector<double> work("work of boundmap", gv::ntheta);
  host::boundmap(gv::ntheta, gv::theta.data(), work.data());
  for (int i = 1; i <= gv::ntheta; ++i) {
    if (gv::ibtight(i) != 1) continue;
    if (gv::myid == 0) warn(i);
    flag = 1;
  }
}

}  // namespace statsubs
