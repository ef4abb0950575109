// SPDX-License-Identifier: Apache-2.0
#include "varda/cli/run.h"

#include <fmt/format.h>

#include <chrono>
#include <csignal>
#include <cstdio>
#include <exception>
#include <filesystem>
#include <memory>
#include <optional>
#include <utility>
#include <vector>

#include "statsubs/state/output_units.h"
#include "varda/cli/checkpoint.h"
#include "varda/cli/report.h"
#include "varda/cli/shared_files.h"
#include "varda/cli/start_from.h"
#include "varda/data/fingerprint.h"
#include "varda/folder/run_folder.h"
#include "varda/host/engine_host.h"
#include "varda/inference/quadrature.h"
#include "varda/input/model_file.h"
#include "varda/model/plausibility.h"
#include "varda/model/settings_table.h"
#include "varda/model/start_evaluation.h"
#include "varda/report/matrix_tables.h"
#include "varda/report/progress.h"
#include "varda/report/reports.h"
#include "varda/run/fit.h"
#include "varda/support/digest.h"
#include "varda/support/files.h"
#include "varda/support/text.h"
#include "varda/version.h"

namespace varda {

namespace {

// The library's lines, kept until the run is over. Each process has a library that takes itself for
// the only one: those of the root are shown.
class record_keeper {
 public:
  // `before`: those of the run that is taken up.
  explicit record_keeper(bool to_terminal, std::string before = "") : text_(std::move(before)) {
    if (to_terminal) return;
    statsubs::take_unit(
        statsubs::standard_output_unit,
        [](void* context, const char* line, int length) {
          auto& text = static_cast<record_keeper*>(context)->text_;
          text.append(line, static_cast<std::size_t>(length));
          text += '\n';
        },
        this);
  }
  ~record_keeper() { statsubs::take_unit(statsubs::standard_output_unit, nullptr, nullptr); }
  record_keeper(const record_keeper&) = delete;
  record_keeper& operator=(const record_keeper&) = delete;
  const std::string& text() const { return text_; }

 private:
  std::string text_;
};

// An interrupt ends the iterations in order instead of the process; a second one ends the process.
void on_interrupt(int signal) {
  engine_host::request_stop();
  std::signal(signal, SIG_DFL);
}

// What a run starts from, besides its settings.
struct beginning {
  std::optional<saved_fit> saved;  // where a fit is taken up
  fit_session session;
  std::string started;  // where the start values are from, for page one
};

void take_start_values(const run_request& request, const file_access& files, beginning& from,
                       model_specification& file) {
  stored_fit fit;
  fit_session& session = from.session;
  if (!request.from.empty()) {
    fit = read_stored_fit(request.from, files);
    session.from = request.from;
    for (const stored_quantity& q : fit.quantities)
      session.from_estimates.emplace_back(q.name, q.estimate);
  }
  if (session.from.empty()) return;
  if (fit.quantities.empty())
    for (const auto& [name, estimate] : session.from_estimates)
      fit.quantities.push_back({name, estimate, false, {}});
  const std::vector<std::string> taken = start_from(fit, file);
  from.started = wrapped(fmt::format("Start values from {}: {}\n", session.from,
                                     taken.empty() ? "none, since no name is the same"
                                                   : fmt::format("{}", fmt::join(taken, ", "))),
                         2);
}

population_model prepare(const run_request& request, const job& peers, findings& warnings,
                         beginning& from) {
  model_specification file;
  dataset data;
  {
    // Keeps the texts that it has shared.
    const file_access files = shared_files(peers);
    file = read_model_file(request.model_path, warnings, request.overrides, files);
    take_start_values(request, files, from, file);
    data = read_dataset(file.data, warnings, files);
  }
  population_model model(std::move(file), std::move(data));
  check_start(model);
  const findings odd = implausible(model);
  warnings.insert(warnings.end(), odd.begin(), odd.end());
  check_grid(model);
  return model;
}

const char* name_of(task what) {
  return what == task::fit ? "fit" : "evaluate";
}

// The files that a run may write.
std::vector<std::string> result_names(task what, bool with_report) {
  std::vector<std::string> names = {"model-used.toml", "run.json",     "page_one.txt",
                                    "estimates.csv",   "subjects.csv", "iterations.csv",
                                    "rows.csv",        "legend.csv",   "records.txt"};
  for (const char* ending : {".json", ".ext", ".phi", ".cov", ".cor"})
    names.push_back(name_of(what) + std::string(ending));
  if (what == task::fit) names.emplace_back(state_name);
  if (with_report) names.emplace_back(report_name);
  return names;
}

// The root tries the folder and every process learns the outcome: a refusal on one alone would
// leave the others waiting. Null on processes other than the root.
std::unique_ptr<run_folder> open_folder(const run_request& request, const manifest& origin,
                                        const job& peers) {
  std::unique_ptr<run_folder> folder;
  std::exception_ptr refusal;
  if (peers.is_root()) {
    try {
      folder = std::make_unique<run_folder>(request.output_path, name_of(request.what),
                                            result_names(request.what, request.report));
      if (!request.resume) std::fputs(check_leftover(request.output_path, origin).c_str(), stderr);
    } catch (const bad_input&) {
      refusal = std::current_exception();
    }
  }
  const bool refused = peers.any(refusal != nullptr);
  if (refusal) std::rethrow_exception(refusal);
  if (refused) throw bad_input({.code = "E-RUN-OUTPUT", .message = "refused by the root"});
  return folder;
}

// What the run was made from, before anything can change it.
manifest origin_of(const run_request& request, const population_model& model) {
  manifest about;
  about.task = name_of(request.what);
  about.version = version;
  about.model_path = std::filesystem::absolute(request.model_path).lexically_normal().string();
  about.model_sha256 = sha256(read_from_disk(request.model_path).value_or(""));
  about.data_path = std::filesystem::absolute(model.data().file).lexically_normal().string();
  about.data_sha256 = sha256(read_from_disk(model.data().file).value_or(""));
  about.observations_sha256 = observations_fingerprint(model.data());
  about.doses_sha256 = doses_fingerprint(model.data());
  const estimation_settings& settings = model.specification().estimation;
  about.seed = settings.seed;
  for (const setting& row : every_setting())
    about.settings[row.name] = std::visit(
        [](const auto& value) { return fmt::format("{}", value); }, value_of(row, settings));
  return about;
}

// `model` and `result` outlive the exchange.
void add_reports(run_folder& folder, const population_model& model, const fit_result& result) {
  const std::string stem = name_of(result.what);
  folder.add("estimates.csv", estimates_csv(model, result));
  folder.add("iterations.csv", iterations_csv(model, result));
  folder.add("legend.csv", legend_csv(model));
  folder.add(stem + ".ext", ext_table(model, result));
  if (!result.errors.chosen().empty()) {
    folder.add(stem + ".cov", cov_table(model, result));
    folder.add(stem + ".cor", cor_table(model, result));
  }
  folder.add(stem + ".json", json_report(model, result));
  folder.add("subjects.csv", subjects_csv(model, result));
  folder.add(stem + ".phi", phi_table(model, result));
  folder.add("rows.csv", rows_csv(model, result));
}

// False where standard output cannot take it.
bool print(const std::string& text) {
  const bool written = std::fputs(text.c_str(), stdout) >= 0;
  return std::fflush(stdout) == 0 && written;
}

// Files and page one: each is tried whatever becomes of the other.
bool deliver(run_folder& folder, const manifest& origin, const std::string& page) {
  bool whole = true;
  std::string last = fmt::format("\nResults in {}\n", folder.path().string());
  try {
    folder.exchange(origin);
  } catch (const std::exception& error) {
    whole = false;
    last = fmt::format("\nNO RESULTS WERE WRITTEN: {}\n", error.what());
    std::fputs(fmt::format("varda: {}\n", error.what()).c_str(), stderr);
  }
  if (print(page + last)) return whole;
  std::fputs("varda: standard output cannot take page one; page_one.txt has it\n", stderr);
  return false;
}

}  // namespace

exit_status run(const run_request& request, job& peers) {
  const auto begin = std::chrono::steady_clock::now();
  findings warnings;
  beginning from;
  if (request.resume) {
    from.saved = take_up(request.output_path, peers);
    from.session = from.saved->session;
  }
  const population_model model = prepare(request, peers, warnings, from);
  peers.use_threads(model.specification().estimation.threads);
  const manifest origin = origin_of(request, model);
  if (from.saved) check_same(*from.saved, origin, request.output_path);
  const std::string model_text = read_from_disk(request.model_path).value_or("");
  const std::unique_ptr<run_folder> folder = open_folder(request, origin, peers);

  const bool silent = request.quiet || !peers.is_root();
  const progress_style style = silent ? progress_style::quiet : progress_style_of_error_stream();
  const record_keeper records(request.records_to_terminal && peers.is_root(), from.session.records);
  engine_host host(model, peers);
  for (const int signal : {SIGINT, SIGTERM, SIGHUP}) std::signal(signal, on_interrupt);
  std::signal(SIGPIPE, SIG_IGN);

  const progress_listener progress = make_progress(style);
  checkpointer keeper(folder.get(), peers, model.specification().estimation.checkpoint,
                      identity_of(origin), from.session, records.text());
  fit_result result = request.what == task::evaluate ? evaluate(host, progress)
                      : from.saved ? fit(host, progress, keeper, std::move(from.saved->state))
                                   : fit(host, progress, keeper, {});
  finish_progress(style);
  result.threads = peers.threads().size();
  result.why_one_thread = peers.why_one_thread();
  result.sessions = from.session.sessions + 1;
  result.warnings.insert(result.warnings.begin(), warnings.begin(), warnings.end());
  result.times.total =
      from.session.seconds +
      std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count();

  result.source = {origin.model_sha256, origin.data_sha256, origin.observations_sha256,
                   origin.doses_sha256};

  bool failed = false;
  if (peers.is_root()) {
    std::string page = summary(model, result) + (from.started.empty() ? "" : "\n" + from.started);
    add_reports(*folder, model, result);
    folder->add("model-used.toml", model_text);
    folder->add("run.json", run_json(result, request.command));
    if (!keeper.at_stop().empty()) {
      folder->add(state_name, keeper.at_stop());
      page += "\n" + wrapped("Stopped. To continue, run the same command with --resume.\n", 2);
    }
    folder->add("page_one.txt", page);
    if (!records.text().empty()) folder->add("records.txt", records.text());
    failed = !deliver(*folder, origin, page) || failed;
  }
  for (const int signal : {SIGINT, SIGTERM, SIGHUP}) std::signal(signal, SIG_DFL);
  if (peers.any(failed)) return exit_status::failure;
  return result.converged ? exit_status::converged : exit_status::not_converged;
}

}  // namespace varda
