// SPDX-License-Identifier: Apache-2.0
#include <fmt/format.h>
#ifdef __GLIBC__
#include <malloc.h>
#endif

#include <CLI/CLI.hpp>
#include <cstdio>
#include <exception>
#include <filesystem>
#include <limits>
#include <string>
#include <vector>

#include "varda/cli/check.h"
#include "varda/cli/compare.h"
#include "varda/cli/new.h"
#include "varda/cli/report.h"
#include "varda/cli/run.h"
#include "varda/cli/selftest.h"
#include "varda/cli/simulate.h"
#include "varda/host/job.h"
#include "varda/model/settings_table.h"
#include "varda/support/finding.h"
#include "varda/support/stop.h"
#include "varda/version.h"

namespace {

void describe(CLI::App* command, varda::source_request& request) {
  command->add_option("model", request.path, "model file, or output folder of a fit")->required();
  command->add_option("--data", request.data, "use this data set instead");
  command->add_option("-o,--output", request.output,
                      "write CSV to this file, not to standard output");
  command->add_option("--seed", request.seed, "override the seed of the model or fit")
      ->check(CLI::Range(1, std::numeric_limits<int>::max()));
  command
      ->add_option("--threads", request.threads, "number of threads; results do not depend on it")
      ->check(CLI::Range(1, 1024));
}

void describe(CLI::App* command, varda::simulate_request& request) {
  describe(command, request.from);
  command->add_option("-n,--replicates", request.replicates, "number of simulated data sets")
      ->check(CLI::Range(1, 1000000));
  command->add_flag("--uncertainty", request.uncertainty,
                    "draw parameters from the estimates' covariance");
}

void describe(CLI::App* command, varda::predict_request& request) {
  describe(command, request.from);
  command->add_option("--times", request.times,
                      "FROM:TO:STEP or a list; default: times of the data");
  command->add_option("--samples", request.samples, "samples for each subject's band")
      ->check(CLI::Range(100, 10000000));
}

void describe(CLI::App* command, varda::vpc_request& request) {
  describe(command, request.from);
  command->add_option("-n,--replicates", request.replicates, "number of simulated data sets")
      ->check(CLI::Range(1, 1000000));
  command->add_flag("--uncertainty", request.uncertainty,
                    "draw parameters from the estimates' covariance");
  command->add_flag("--prediction-corrected", request.prediction_corrected,
                    "correct each value for the prediction in its bin");
  command->add_flag("--time-after-dose", request.time_after_dose, "use time after dose");
  command->add_option("--bins", request.bins, "number of bins, or their edges: 0,2,8,24");
  command->add_option("--stratify", request.stratify, "one panel for each value of this covariate");
}

void describe(CLI::App* command, varda::new_request& request) {
  command->add_option("structure", request.structure,
                      "a structure, or PHARMACOKINETICS + RESPONSE");
  command->add_flag("--list", request.list,
                    "list the structures, or describe the one that is named");
  command->add_option("--data", request.data, "data set that start values come from");
  command->add_option("-o,--output", request.output, "model file instead of standard output");
  command->add_flag("--equations", request.as_equations, "write the equations into the file");
  command->add_option("--outputs", request.outputs, "what was measured of the structure's outputs")
      ->delimiter(',');
  command->add_option("--column", request.columns, "ROLE=NAME, a column of the data");
  command->add_option("--error", request.error, "additive, proportional, combined, ...");
}

void describe(CLI::App* command, varda::report_request& request) {
  command->add_option("folder", request.folder, "output folder of a fit or evaluation")->required();
  command->add_option("-o,--output", request.output,
                      "report file; default: report.html in the folder");
  command
      ->add_option("-n,--replicates", request.replicates,
                   "simulations for the visual predictive check")
      ->check(CLI::Range(20, 100000));
  command
      ->add_option("--threads", request.threads, "number of threads; results do not depend on it")
      ->check(CLI::Range(1, 1024));
}

// What was probably meant by a command that does not exist, or nothing.
std::string meant(const CLI::App& app, int argc, char** argv) {
  if (argc < 2 || argv[1][0] == '-') return "";
  std::vector<std::string> names;
  for (const CLI::App* command : app.get_subcommands(nullptr)) {
    if (command->get_name() == argv[1]) return "";
    names.push_back(command->get_name());
  }
  const std::string near = varda::did_you_mean(argv[1], names);
  return fmt::format("varda: unknown command '{}'{}\n", argv[1],
                     near.empty() ? fmt::format("; the commands are {}", fmt::join(names, ", "))
                                  : fmt::format("; did you mean '{}'?", near));
}

void describe(CLI::App* command, const std::string& folder, varda::run_request& request) {
  command->add_option("model", request.model_path, "model file (TOML)")->required();
  command->add_option("-o,--output", request.output_path, "output folder; default: " + folder);
  command->add_option("--from", request.from, "start at the estimates of the fit in this folder");
  for (const std::string name : {"seed", "samples", "threads"}) {
    const varda::whole_number_setting& row = varda::whole_number_called(name);
    command
        ->add_option_function<int>(
            "--" + name, [&request, name](int value) { request.overrides[name] = value; },
            "override estimation." + name + " of the model file")
        ->check(CLI::Range(row.least, row.most));
  }
  command->add_flag("--report", request.report, "also write report.html");
  command->add_flag("-q,--quiet", request.quiet, "do not show progress");
  command->add_flag("--records", request.records_to_terminal,
                    "print the library's records instead of saving them");
}

void say(const std::string& line) {
  std::fputs((line + "\n").c_str(), stderr);
}

int run_program(int argc, char** argv, varda::job& peers) {
  CLI::App app("Maximum likelihood for nonlinear mixed-effects models", "varda");
  app.set_version_flag("--version", std::string("varda ") + varda::version);
  app.require_subcommand(1);
  app.get_formatter()->column_width(28);
  varda::run_request request;
  CLI::App* fit = app.add_subcommand("fit", "estimate the parameters of a model");
  CLI::App* evaluate = app.add_subcommand("evaluate", "compute the likelihood at the start values");
  CLI::App* check = app.add_subcommand("check", "check model and data without fitting");
  varda::check_request inspected;
  check->add_option("model", inspected.model_path, "model file (TOML)")->required();
  check->add_flag("--json", inspected.json, "print JSON instead of text");
  CLI::App* comparing = app.add_subcommand("compare", "compare runs: criteria, tests, estimates");
  varda::compare_request compared;
  comparing->add_option("folders", compared.folders, "output folders; the first is the reference")
      ->required();
  comparing->add_flag("--nested", compared.nested, "likelihood-ratio tests against the first run");
  comparing->add_flag("--json", compared.json, "print JSON instead of text");
  varda::selftest_request tested;
  CLI::App* testing = app.add_subcommand("selftest", "test this installation");
  testing->add_flag("--json", tested.json, "print JSON instead of text");
  testing->add_flag("-q,--quiet", tested.quiet, "do not show progress");
  varda::new_request drafted;
  describe(app.add_subcommand("new", "write a model file for a structure and your data"), drafted);
  varda::report_request reported;
  describe(app.add_subcommand("report", "write results and plots to one HTML file"), reported);
  varda::simulate_request simulated;
  varda::predict_request predicted;
  varda::vpc_request checked;
  CLI::App* simulate = app.add_subcommand("simulate", "simulate data sets from a model");
  CLI::App* predict = app.add_subcommand("predict", "predict for the population and for subjects");
  CLI::App* vpc = app.add_subcommand("vpc", "compute a visual predictive check");
  describe(simulate, simulated);
  describe(predict, predicted);
  describe(vpc, checked);
  describe(fit, "MODEL-out", request);
  fit->add_flag("--resume", request.resume, "continue the fit that was killed or stopped")
      ->excludes("--from");
  describe(evaluate, "MODEL-evaluation", request);
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& error) {
    if (const std::string near = meant(app, argc, argv); !near.empty()) {
      if (peers.is_root()) std::fputs(near.c_str(), stderr);
      if (!peers.all_are_leaving()) peers.abort(varda::exit_status::unusable_input);
      return varda::exit_status::unusable_input;
    }
    const int status = peers.is_root() ? app.exit(error) : error.get_exit_code();
    if (!peers.all_are_leaving()) {
      if (!peers.is_root()) app.exit(error);
      peers.abort(varda::exit_status::unusable_input);
    }
    return status == 0 ? 0 : varda::exit_status::unusable_input;
  }
  request.what = evaluate->parsed() ? varda::task::evaluate : varda::task::fit;
  request.command.assign(argv, argv + argc);
  if (request.output_path.empty())
    request.output_path = std::filesystem::path(request.model_path).replace_extension().string() +
                          (evaluate->parsed() ? "-evaluation" : "-out");

  if (simulate->parsed()) return varda::simulate_data(simulated, peers);
  if (predict->parsed()) return varda::predict_data(predicted, peers);
  if (vpc->parsed()) return varda::check_visually(checked, peers);
  if (comparing->parsed()) return varda::compare_runs(compared, peers);
  if (testing->parsed()) return varda::selftest(tested, peers);
  if (check->parsed()) return varda::check(inspected, peers);
  if (app.got_subcommand("new")) return varda::new_model(drafted, peers);
  if (app.got_subcommand("report")) return varda::write_report(reported, peers);
  const varda::exit_status ended = varda::run(request, peers);
  if (!request.report || ended == varda::exit_status::failure) return ended;
  if (!peers.any(varda::stop_requested()))
    varda::write_report({.folder = request.output_path}, peers);
  else if (peers.is_root())
    say(fmt::format("varda: stopped before the report; run `varda report {}` to write it",
                    request.output_path));
  return ended;
}

// A fit frees what it soon wants again, the arrays of a subject: that memory stays with the process
// instead of going back to the system, which would clear every page of it before it is used again.
void keep_freed_memory() {
#ifdef __GLIBC__
  constexpr int megabyte = 1 << 20;
  ::mallopt(M_MMAP_THRESHOLD, 32 * megabyte);
  ::mallopt(M_TRIM_THRESHOLD, 64 * megabyte);
  ::mallopt(M_TOP_PAD, megabyte);
#endif
}

// What all processes refuse alike the root tells. A failure of one alone ends the others too, which
// would wait for it for ever.
int run_with_peers(int argc, char** argv, varda::job& peers) {
  try {
    return run_program(argc, argv, peers);
  } catch (const varda::bad_input& error) {
    if (peers.is_root()) say(error.what());
    if (!peers.all_are_leaving()) {
      if (!peers.is_root()) say(error.what());
      peers.abort(varda::exit_status::unusable_input);
    }
    return varda::exit_status::unusable_input;
  } catch (const std::exception& error) {
    say(fmt::format("varda: {}", error.what()));
  } catch (...) {
    say("varda: unknown exception");
  }
  if (peers.size() > 1) peers.abort(varda::exit_status::failure);
  return varda::exit_status::failure;
}

}  // namespace

int main(int argc, char** argv) {
  keep_freed_memory();
  try {
    varda::job peers(&argc, &argv);
    return run_with_peers(argc, argv, peers);
  } catch (const varda::bad_input& error) {
    say(error.what());
    return varda::exit_status::unusable_input;
  }
}
