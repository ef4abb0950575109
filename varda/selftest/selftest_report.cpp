// SPDX-License-Identifier: Apache-2.0
#include "varda/selftest/selftest_report.h"

#include <fmt/format.h>

#include <algorithm>
#include <iterator>
#include <nlohmann/json.hpp>

#include "varda/support/commit.h"
#include "varda/support/machine.h"
#include "varda/version.h"

namespace varda {

namespace {

using nlohmann::ordered_json;

bool all_passed(const std::vector<selftest_case>& outcomes) {
  return std::all_of(outcomes.begin(), outcomes.end(),
                     [](const selftest_case& c) { return c.passed(); });
}

const char* word(bool passed) {
  return passed ? "passed" : "FAILED";
}

}  // namespace

std::string selftest_text(const std::vector<selftest_case>& outcomes) {
  std::string text = fmt::format("varda {}  selftest\n", version);
  const auto out = std::back_inserter(text);
  double seconds = 0.0;
  for (const selftest_case& c : outcomes) {
    seconds += c.seconds;
    fmt::format_to(out, "\n{:<71}  {}\n", c.title, word(c.passed()));
    if (!c.failure.empty()) fmt::format_to(out, "  {}\n", c.failure);
    if (c.figures.empty()) continue;
    fmt::format_to(out, "  {:<32}{:>11}{:>12}{:>12}\n", "", "expected", "found", "allowed");
    for (const selftest_figure& f : c.figures)
      fmt::format_to(out, "  {:<32}{:>11.6g}{:>12.6g}{:>12}{}\n", f.name, f.expected, f.found,
                     fmt::format("+- {:.2g}", f.allowed), f.passed() ? "" : "  FAILED");
  }
  fmt::format_to(out, "\n{}: {} of {} problems passed, {:.1f} s\n",
                 all_passed(outcomes) ? "PASSED" : "FAILED",
                 std::count_if(outcomes.begin(), outcomes.end(),
                               [](const selftest_case& c) { return c.passed(); }),
                 outcomes.size(), seconds);
  return text;
}

std::string selftest_json(const std::vector<selftest_case>& outcomes) {
  ordered_json report;
  report["schema_version"] = 1;
  report["task"] = "selftest";
  report["passed"] = all_passed(outcomes);
  report["problems"] = ordered_json::array();
  for (const selftest_case& c : outcomes) {
    ordered_json figures = ordered_json::array();
    for (const selftest_figure& f : c.figures)
      figures.push_back({{"name", f.name},
                         {"expected", f.expected},
                         {"found", f.found},
                         {"allowed", f.allowed},
                         {"passed", f.passed()}});
    report["problems"].push_back({{"title", c.title},
                                  {"passed", c.passed()},
                                  {"failure", c.failure},
                                  {"figures", figures},
                                  {"seconds", c.seconds}});
  }
  report["versions"] = {{"varda", version}, {"commit", commit()}};
  report["blas"] = blas_library();
  report["host"] = host_name();
  return report.dump(2, ' ', false, ordered_json::error_handler_t::replace) + "\n";
}

}  // namespace varda
