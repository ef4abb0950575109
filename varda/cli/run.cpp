// SPDX-License-Identifier: Apache-2.0
#include "varda/cli/run.h"

#include <fmt/format.h>

#include <chrono>
#include <csignal>
#include <exception>
#include <memory>

#include "statsubs/state/output_units.h"
#include "varda/cli/shared_files.h"
#include "varda/host/engine_host.h"
#include "varda/inference/quadrature.h"
#include "varda/input/model_file.h"
#include "varda/model/start_evaluation.h"
#include "varda/report/matrix_tables.h"
#include "varda/report/output_folder.h"
#include "varda/report/progress.h"
#include "varda/report/reports.h"
#include "varda/run/fit.h"

namespace varda {

namespace {

// The library's lines, kept until the run is over. Each process has a library that takes itself for
// the only one: those of the root are shown.
class record_keeper {
 public:
  explicit record_keeper(bool to_terminal) {
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

population_model prepare(const run_request& request, const job& peers, findings& warnings) {
  const file_access files = shared_files(peers);
  model_specification file =
      read_model_file(request.model_path, warnings, request.overrides, files);
  dataset data = read_dataset(file.data, warnings, files);
  population_model model(std::move(file), std::move(data));
  check_start(model);
  check_grid(model);
  return model;
}

// The root tries the folder and every process learns the outcome: a refusal on one alone would
// leave the others waiting. Null on processes other than the root.
std::unique_ptr<output_folder> open_folder(const std::string& path, const job& peers) {
  std::unique_ptr<output_folder> folder;
  std::exception_ptr refusal;
  if (peers.is_root()) {
    try {
      folder = std::make_unique<output_folder>(path);
    } catch (const bad_input&) {
      refusal = std::current_exception();
    }
  }
  const bool refused = peers.any(refusal != nullptr);
  if (refusal) std::rethrow_exception(refusal);
  if (refused) throw bad_input({.code = "E-RUN-OUTPUT", .message = "refused by the root"});
  return folder;
}

void write_reports(const output_folder& folder, const population_model& model,
                   const fit_result& result, const std::string& records) {
  const bool fitted = result.what == task::fit;
  const std::string stem = fitted ? "fit" : "evaluate";
  folder.write(stem + ".json", json_report(model, result));
  folder.write("estimates.csv", estimates_csv(model, result));
  folder.write("iterations.csv", iterations_csv(model, result));
  folder.write("subjects.csv", subjects_csv(model, result));
  folder.write("rows.csv", rows_csv(model, result));
  folder.write("legend.csv", legend_csv(model));
  folder.write(stem + ".ext", ext_table(model, result));
  folder.write(stem + ".phi", phi_table(model, result));
  if (!result.errors.chosen().empty()) {
    folder.write(stem + ".cov", cov_table(model, result));
    folder.write(stem + ".cor", cor_table(model, result));
  }
  if (!records.empty()) folder.write("records.txt", records);
}

}  // namespace

exit_status run(const run_request& request, job& peers) {
  const auto begin = std::chrono::steady_clock::now();
  findings warnings;
  const population_model model = prepare(request, peers, warnings);
  const std::unique_ptr<output_folder> folder = open_folder(request.output_path, peers);
  peers.use_threads(model.specification().estimation.threads);

  const bool silent = request.quiet || !peers.is_root();
  const progress_style style = silent ? progress_style::quiet : progress_style_of_error_stream();
  const record_keeper records(request.records_to_terminal && peers.is_root());
  std::signal(SIGINT, on_interrupt);
  std::signal(SIGTERM, on_interrupt);

  engine_host host(model, peers);
  const progress_listener progress = make_progress(style);
  fit_result result = request.what == task::fit ? fit(host, progress) : evaluate(host, progress);
  finish_progress(style);
  result.threads = peers.threads().size();
  result.why_one_thread = peers.why_one_thread();
  result.warnings.insert(result.warnings.begin(), warnings.begin(), warnings.end());
  result.times.total =
      std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count();

  if (peers.is_root()) {
    write_reports(*folder, model, result, records.text());
    fmt::print("{}\nResults in {}\n", summary(model, result), folder->path().string());
  }
  return result.converged ? exit_status::converged : exit_status::not_converged;
}

}  // namespace varda
