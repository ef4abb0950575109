// SPDX-License-Identifier: Apache-2.0
#include <fmt/format.h>

#include <CLI/CLI.hpp>
#include <cstdio>
#include <exception>
#include <string>

#include "varda/cli/check.h"
#include "varda/cli/run.h"
#include "varda/host/job.h"
#include "varda/model/settings_table.h"
#include "varda/support/finding.h"
#include "varda/version.h"

namespace {

void describe(CLI::App* command, varda::run_request& request) {
  command->add_option("model", request.model_path, "model file (TOML)")->required();
  command->add_option("-o,--output", request.output_path, "folder for the results")->required();
  for (const std::string name : {"seed", "samples", "threads"}) {
    const varda::whole_number_setting& row = varda::whole_number_called(name);
    command
        ->add_option_function<int>(
            "--" + name, [&request, name](int value) { request.overrides[name] = value; },
            "instead of the model file's estimation." + name)
        ->check(CLI::Range(row.least, row.most));
  }
  command->add_flag("-q,--quiet", request.quiet, "no progress");
  command->add_flag("--records", request.records_to_terminal,
                    "print the library's own records instead of writing records.txt");
}

int run_program(int argc, char** argv, varda::job& peers) {
  CLI::App app("Exact maximum likelihood for nonlinear mixed-effects models", "varda");
  app.set_version_flag("--version", std::string("varda ") + varda::version);
  app.require_subcommand(1);
  varda::run_request request;
  CLI::App* fit = app.add_subcommand("fit", "estimate the parameters");
  CLI::App* evaluate = app.add_subcommand("evaluate", "the exact likelihood at the start values");
  CLI::App* check = app.add_subcommand("check", "all that can be known before a fit");
  varda::check_request inspected;
  check->add_option("model", inspected.model_path, "model file (TOML)")->required();
  check->add_flag("--json", inspected.json, "print JSON instead of text");
  describe(fit, request);
  describe(evaluate, request);
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& error) {
    const int status = peers.is_root() ? app.exit(error) : error.get_exit_code();
    if (!peers.all_are_leaving()) {
      if (!peers.is_root()) app.exit(error);
      peers.abort(varda::exit_status::unusable_input);
    }
    return status == 0 ? 0 : varda::exit_status::unusable_input;
  }
  request.what = evaluate->parsed() ? varda::task::evaluate : varda::task::fit;

  if (check->parsed()) return varda::check(inspected, peers);
  return varda::run(request, peers);
}

// What all processes refuse alike the root tells. A failure of one alone ends the others too, which
// would wait for it for ever.
int run_with_peers(int argc, char** argv, varda::job& peers) {
  try {
    return run_program(argc, argv, peers);
  } catch (const varda::bad_input& error) {
    if (peers.is_root()) fmt::print(stderr, "{}\n", error.what());
    if (!peers.all_are_leaving()) {
      if (!peers.is_root()) fmt::print(stderr, "{}\n", error.what());
      peers.abort(varda::exit_status::unusable_input);
    }
    return varda::exit_status::unusable_input;
  } catch (const std::exception& error) {
    fmt::print(stderr, "varda: {}\n", error.what());
  } catch (...) {
    fmt::print(stderr, "varda: an exception of no known kind\n");
  }
  if (peers.size() > 1) peers.abort(varda::exit_status::failure);
  return varda::exit_status::failure;
}

}  // namespace

int main(int argc, char** argv) {
  try {
    varda::job peers(&argc, &argv);
    return run_with_peers(argc, argv, peers);
  } catch (const varda::bad_input& error) {
    fmt::print(stderr, "{}\n", error.what());
    return varda::exit_status::unusable_input;
  }
}
