// SPDX-License-Identifier: Apache-2.0
#include "varda/report/comparison_report.h"

#include <fmt/format.h>

#include <algorithm>
#include <iterator>
#include <nlohmann/json.hpp>

#include "varda/report/reports.h"
#include "varda/support/text.h"
#include "varda/version.h"

namespace varda {

namespace {

using sink = std::back_insert_iterator<std::string>;

constexpr std::size_t run_width = 16;
constexpr std::size_t quantity_width = 17;
constexpr std::size_t runs_a_block = 3;

const stored_fit& run_at(const comparison& of, int k) {
  return of.runs[static_cast<std::size_t>(k)];
}

// A long name has a line of its own.
std::string name_column(const std::string& name, std::size_t width) {
  if (name.size() <= width) return fmt::format("  {:<{}}", name, width);
  return fmt::format("  {}\n{:<{}}", name, "", width + 2);
}

std::string marked(const stored_fit& run) {
  return run.folder + (run.converged ? "" : " *");
}

constexpr const char* criteria_header = "       -2LL MC error  est.       AIC  BIC obs. BIC subj.";

void write_runs(sink out, const comparison& of, const comparison_group& group) {
  fmt::format_to(out, "{:<{}}{}\n", "Run", run_width + 2, criteria_header);
  bool mark = false;
  for (const int k : group.runs) {
    const stored_fit& run = run_at(of, k);
    mark = mark || !run.converged;
    const std::string name = name_column(marked(run), run_width);
    if (run.minus2ll)
      fmt::format_to(out, "{}{:>11.4f} {:>8.4f} {:>5} {:>9.3f} {:>9.3f} {:>9.3f}\n", name,
                     *run.minus2ll, run.mc_se, run.estimated, run.aic, run.bic_observations,
                     run.bic_subjects);
    else
      fmt::format_to(out, "{}{:>11}\n", name, "unknown");
  }
  if (mark) fmt::format_to(out, "  * not converged, so not at a maximum\n");
}

void write_differences(sink out, const comparison& of, const comparison_group& group) {
  if (group.runs.size() < 2) return;
  const std::string first = run_at(of, group.runs.front()).folder;
  fmt::format_to(out, "\nDifference from {}\n", first);
  bool unpaired = false;
  for (std::size_t j = 1; j < group.runs.size(); ++j) {
    const std::string name = name_column(marked(run_at(of, group.runs[j])), run_width);
    if (!group.differences[j]) {
      fmt::format_to(out, "{}{:>11}\n", name, "unknown");
      continue;
    }
    const run_difference& d = *group.differences[j];
    unpaired = unpaired || !d.paired;
    fmt::format_to(out, "{}{:>+11.4f} {:>8.4f} {:>+5} {:>+9.3f} {:>+9.3f} {:>+9.3f}\n", name,
                   d.minus2ll, d.mc_se, d.estimated, d.aic, d.bic_observations, d.bic_subjects);
  }
  if (unpaired)
    fmt::format_to(out, "{}\n",
                   wrapped("  Where the numbers of replicates differ, the Monte Carlo errors of "
                           "the two runs are taken to be independent.",
                           2));
}

std::string p_value(double p) {
  return p < 1e-4 ? fmt::format("{:.1e}", p) : fmt::format("{:.4f}", p);
}

std::string test_text(const comparison& of, const ratio_test& t) {
  std::string text =
      fmt::format("  {} within {}: ", run_at(of, t.smaller).folder, run_at(of, t.larger).folder);
  if (t.degrees_of_freedom == 0)
    return text + "no test, since both models have the same number of estimated parameters";
  text += fmt::format("chi-square {:.4f} (Monte Carlo error {:.4f}), {} of freedom, p = {}",
                      t.statistic, t.mc_se, count_of(t.degrees_of_freedom, "degree"), p_value(t.p));
  if (p_value(t.p_least) != p_value(t.p_most))
    text += fmt::format(" ({} to {} within 1.96 Monte Carlo errors)", p_value(t.p_least),
                        p_value(t.p_most));
  text += ".";
  if (t.statistic < -1.96 * t.mc_se)
    text +=
        " The larger model fits worse: it has not reached its maximum, or does not contain "
        "the smaller one.";
  if (!run_at(of, t.smaller).converged || !run_at(of, t.larger).converged)
    text += " The test is not valid: a run has not converged.";
  if (t.on_boundary.empty()) return text;
  text +=
      fmt::format(" The smaller model has {} on the boundary, 0", fmt::join(t.on_boundary, ", "));
  if (t.p_mixture)
    return text + fmt::format(
                      ": p = {} from a mixture of chi-square distributions with {} and {} degrees "
                      "of freedom.",
                      p_value(*t.p_mixture), t.degrees_of_freedom - 1, t.degrees_of_freedom);
  return text + ", so p is too large.";
}

void write_tests(sink out, const comparison& of, const comparison_group& group) {
  if (group.tests.empty()) return;
  fmt::format_to(out, "\nLikelihood-ratio tests, assuming that the models are nested\n");
  for (const ratio_test& t : group.tests) fmt::format_to(out, "{}\n", wrapped(test_text(of, t), 4));
}

const stored_quantity* quantity_of(const stored_fit& run, const std::string& name) {
  for (const stored_quantity& q : run.quantities)
    if (q.name == name) return &q;
  return nullptr;
}

std::string estimate_column(const stored_quantity* q) {
  if (q == nullptr) return fmt::format("{:>20}", "-");
  const std::string error = q->fixed ? "(fixed)" : q->rse ? fmt::format("({:.1f} %)", *q->rse) : "";
  return fmt::format("{:>11.5g} {:>8}", q->estimate, error);
}

// A run's name in a column: its end, which tells folders apart.
std::string heading(const std::string& name, std::size_t width) {
  return name.size() <= width ? name : "..." + name.substr(name.size() - width + 3);
}

void write_estimates(sink out, const comparison& of, const comparison_group& group) {
  std::vector<std::string> names;
  for (const int k : group.runs)
    for (const stored_quantity& q : run_at(of, k).quantities)
      if (std::find(names.begin(), names.end(), q.name) == names.end()) names.push_back(q.name);
  for (std::size_t begin = 0; begin < group.runs.size(); begin += runs_a_block) {
    const std::size_t end = std::min(begin + runs_a_block, group.runs.size());
    fmt::format_to(out, "\n{:<{}}", "Estimate (RSE)", quantity_width + 2);
    for (std::size_t j = begin; j < end; ++j)
      fmt::format_to(out, " {:>19}", heading(run_at(of, group.runs[j]).folder, 19));
    fmt::format_to(out, "\n");
    for (const std::string& name : names) {
      std::string line = name_column(name, quantity_width);
      for (std::size_t j = begin; j < end; ++j)
        line += estimate_column(quantity_of(run_at(of, group.runs[j]), name));
      line.erase(line.find_last_not_of(' ') + 1);
      fmt::format_to(out, "{}\n", line);
    }
  }
}

const char* verdict_of(const stored_fit& run) {
  if (run.about.task == "evaluate") return run.converged ? "evaluated" : "NOT RELIABLE";
  return run.converged ? "converged" : run.singular.empty() ? "NOT CONVERGED" : "OMEGA IS SINGULAR";
}

void write_verdicts(sink out, const comparison& of, const comparison_group& group) {
  fmt::format_to(out, "\nVerdicts\n");
  for (const int k : group.runs) {
    const stored_fit& run = run_at(of, k);
    fmt::format_to(
        out, "{}\n",
        wrapped(fmt::format("  {}: {}; {}", run.folder, verdict_of(run), run.reason), 4));
  }
}

using nlohmann::ordered_json;

ordered_json run_entry(const stored_fit& run) {
  ordered_json entry;
  entry["folder"] = run.folder;
  entry["task"] = run.about.task;
  entry["title"] = run.title;
  entry["converged"] = run.converged;
  entry["reason"] = run.reason;
  entry["singular"] = run.singular;
  entry["subjects"] = run.subjects;
  entry["observations"] = run.observations;
  entry["data_sha256"] = run.about.data_sha256;
  entry["observations_sha256"] = run.about.observations_sha256;
  entry["doses_sha256"] = run.about.doses_sha256;
  entry["estimated"] = run.estimated;
  const auto figure = [&](double value) {
    return run.minus2ll ? ordered_json(value) : ordered_json();
  };
  entry["minus2ll"] = figure(run.minus2ll.value_or(0.0));
  entry["minus2ll_mc_se"] = figure(run.mc_se);
  entry["aic"] = figure(run.aic);
  entry["bic_observations"] = figure(run.bic_observations);
  entry["bic_subjects"] = figure(run.bic_subjects);
  entry["estimates"] = ordered_json::array();
  for (const stored_quantity& q : run.quantities)
    entry["estimates"].push_back({{"name", q.name},
                                  {"estimate", q.estimate},
                                  {"fixed", q.fixed},
                                  {"rse", q.rse ? ordered_json(*q.rse) : ordered_json()}});
  return entry;
}

ordered_json group_entry(const comparison& of, const comparison_group& group) {
  ordered_json entry;
  entry["apart"] = group.apart;
  entry["runs"] = ordered_json::array();
  for (const int k : group.runs) entry["runs"].push_back(run_at(of, k).folder);
  entry["differences"] = ordered_json::array();
  for (std::size_t j = 1; j < group.runs.size(); ++j) {
    if (!group.differences[j]) continue;
    const run_difference& d = *group.differences[j];
    entry["differences"].push_back({{"run", run_at(of, group.runs[j]).folder},
                                    {"less", run_at(of, group.runs.front()).folder},
                                    {"minus2ll", d.minus2ll},
                                    {"mc_se", d.mc_se},
                                    {"paired", d.paired},
                                    {"estimated", d.estimated},
                                    {"aic", d.aic},
                                    {"bic_observations", d.bic_observations},
                                    {"bic_subjects", d.bic_subjects}});
  }
  entry["tests"] = ordered_json::array();
  for (const ratio_test& t : group.tests)
    entry["tests"].push_back(
        {{"smaller", run_at(of, t.smaller).folder},
         {"larger", run_at(of, t.larger).folder},
         {"degrees_of_freedom", t.degrees_of_freedom},
         {"chi_square", t.statistic},
         {"mc_se", t.mc_se},
         {"p", t.p},
         {"p_within_error", {t.p_least, t.p_most}},
         {"on_boundary", t.on_boundary},
         {"p_mixture", t.p_mixture ? ordered_json(*t.p_mixture) : ordered_json()}});
  return entry;
}

}  // namespace

std::string comparison_text(const comparison& of) {
  std::string text;
  const sink out(text);
  fmt::format_to(out, "varda {}  comparison of {}\n", version,
                 count_of(std::ssize(of.runs), "run"));
  for (const comparison_group& group : of.groups) {
    const stored_fit& first = run_at(of, group.runs.front());
    if (!group.apart.empty())
      fmt::format_to(out, "\n{}\n", wrapped("NOT COMPARABLE WITH THE ABOVE: " + group.apart, 2));
    fmt::format_to(out, "\n{} of {}\n", count_of(first.observations, "observation"),
                   count_of(first.subjects, "subject"));
    write_runs(out, of, group);
    write_differences(out, of, group);
    write_tests(out, of, group);
    write_estimates(out, of, group);
    write_verdicts(out, of, group);
  }
  return text;
}

std::string comparison_json(const comparison& of) {
  ordered_json report;
  report["schema_version"] = json_schema_version;
  report["task"] = "compare";
  report["runs"] = ordered_json::array();
  for (const stored_fit& run : of.runs) report["runs"].push_back(run_entry(run));
  report["groups"] = ordered_json::array();
  for (const comparison_group& group : of.groups)
    report["groups"].push_back(group_entry(of, group));
  report["versions"] = {{"varda", version}};
  return report.dump(2, ' ', false, ordered_json::error_handler_t::replace) + "\n";
}

}  // namespace varda
