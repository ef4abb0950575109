// SPDX-License-Identifier: Apache-2.0
#include "varda/cli/selftest.h"

#include <fmt/format.h>

#include <algorithm>
#include <cstdio>

#include "statsubs/state/output_units.h"
#include "varda/selftest/selftest.h"
#include "varda/selftest/selftest_report.h"

namespace varda {

exit_status selftest(const selftest_request& request, job& peers) {
  statsubs::take_unit(
      statsubs::standard_output_unit, [](void*, const char*, int) {}, nullptr);
  const std::vector<selftest_case> outcomes = run_selftest(peers, [&](const std::string& title) {
    if (peers.is_root() && !request.quiet) std::fputs((title + "\n").c_str(), stderr);
  });
  statsubs::take_unit(statsubs::standard_output_unit, nullptr, nullptr);
  if (peers.is_root())
    fmt::print("{}", request.json ? selftest_json(outcomes) : selftest_text(outcomes));
  const bool passed = std::all_of(outcomes.begin(), outcomes.end(),
                                  [](const selftest_case& c) { return c.passed(); });
  return passed ? exit_status::sound : exit_status::failure;
}

}  // namespace varda
