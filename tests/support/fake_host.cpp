// SPDX-License-Identifier: Apache-2.0
#include "tests/support/fake_host.h"

#include <cstddef>
#include <cstdio>
#include <fstream>

#include "statsubs/state/global_variables.h"
#include "statsubs/state/output_units.h"
#include "statsubs/state/saveearlyvars.h"

namespace test {

namespace {

fake_host* current = nullptr;

}  // namespace

fake_host::fake_host() {
  current = this;
  statsubs::host_table& table = statsubs::installed_host();
  table = statsubs::default_host();
  table.setisub = [](const int& isub) {
    current->subject = isub;
    current->calls.emplace_back("setisub");
  };
  table.seteta = [](const double*) { current->calls.emplace_back("seteta"); };
  table.settheta = [](const double*) { current->calls.emplace_back("settheta"); };
  table.fcnxeta = [](const int&, const double* eta, double& f) {
    current->calls.emplace_back("fcnxeta");
    f = current->objective(current->subject, eta);
  };
  table.fcneta = [](const int&, const double* eta, double& f) {
    f = current->objective(current->subject, eta);
  };
  table.getsaemcmatrix = [](const int& isub0, double* c) { current->cmatrix(isub0, c); };
  table.stoprequested = [] {
    current->calls.emplace_back("stoprequested");
    return current->stop();
  };
  table.checkforstop = [](int& flag) {
    current->calls.emplace_back("checkforstop");
    statsubs::saveearlyvars::globalstop = flag != 0 ? 1 : 0;
  };
  table.globalvec = [](double*, const int&) { current->calls.emplace_back("globalvec"); };
}

fake_host::~fake_host() {
  statsubs::installed_host() = statsubs::default_host();
  statsubs::saveearlyvars::globalstop = 0;
  current = nullptr;
}

void fake_host::evaluate_together() {
  table().fcnxetas = [](const int& leneta, const int& n, const double* etas, double* f, double* z) {
    current->together.push_back(n);
    for (int i = 0; i < n; ++i) {
      f[i] = current->objective(current->subject, etas + static_cast<std::ptrdiff_t>(i) * leneta);
      z[i] = statsubs::global_variables::zscoresub;
    }
  };
}

statsubs::host_table& fake_host::table() {
  return statsubs::installed_host();
}

captured_unit::captured_unit(int unit) : unit_(unit) {
  statsubs::take_unit(
      unit,
      [](void* context, const char* line, int length) {
        static_cast<captured_unit*>(context)->lines_.emplace_back(line, line + length);
      },
      this);
}

captured_unit::~captured_unit() {
  statsubs::take_unit(unit_, nullptr, nullptr);
}

std::vector<std::string> engine_log_lines() {
  std::vector<std::string> lines;
  std::ifstream log("vardaengine.log");
  for (std::string line; std::getline(log, line);) lines.push_back(line);
  return lines;
}

void remove_engine_log() {
  std::remove("vardaengine.log");
}

}  // namespace test
