// SPDX-License-Identifier: Apache-2.0
#include "varda/report/progress.h"

#include <fmt/format.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <optional>
#include <string>

namespace varda {

namespace {

constexpr int bar_width = 30;
constexpr int line_every = 10;  // iterations
constexpr auto redraw_every = std::chrono::milliseconds(100);

const char* title_of(run_stage stage) {
  switch (stage) {
    case run_stage::start:
      return "start-up";
    case run_stage::iterations:
      return "iteration";
    case run_stage::judging:
      return "proposals for the verdict";
    case run_stage::likelihood:
      return "likelihood";
    case run_stage::standard_errors:
      return "standard errors";
    case run_stage::quadrature:
      return "quadrature, subject";
    case run_stage::npde:
      return "NPDE, subject";
  }
  return "";
}

bool is_by_subject(run_stage stage) {
  return stage == run_stage::quadrature || stage == run_stage::npde;
}

std::string figures(const run_progress& at) {
  std::string text = at.minus2ll ? fmt::format("  -2LL {:.4f}", *at.minus2ll) : "";
  if (!at.note.empty()) text += "  " + at.note;
  return text;
}

// A full disk or a closed terminal costs the progress, not the run.
void print_to_error_stream(const std::string& text) {
  std::fputs(text.c_str(), stderr);
  std::fflush(stderr);
  std::clearerr(stderr);
}

// Subjects may be many: a tenth of them is worth a line.
void print_line(const run_progress& at) {
  const int every = is_by_subject(at.stage) ? std::max(line_every, at.of / 10) : line_every;
  if (at.of > 0 && at.step != 1 && at.step % every != 0) return;
  const std::string number = at.of > 0 ? fmt::format(" {:>4}", at.step) : "";
  print_to_error_stream(fmt::format("{}{}{}\n", title_of(at.stage), number, figures(at)));
}

// One line for each stage.
class bar {
 public:
  void draw(const run_progress& at) {
    const auto now = std::chrono::steady_clock::now();
    if (at.step > 1 && now - drawn_ < redraw_every) return;
    if (stage_ && (*stage_ != at.stage || at.of == 0)) print_to_error_stream("\n");
    stage_ = at.stage;
    drawn_ = now;
    if (at.of == 0) return print_to_error_stream(std::string(title_of(at.stage)) + figures(at));
    const int filled = bar_width * at.step / at.of;
    print_to_error_stream(fmt::format("\r{} [{:<{}}] {} ({} {}){} ", title_of(at.stage),
                                      std::string(static_cast<std::size_t>(filled), '#'), bar_width,
                                      at.step, is_by_subject(at.stage) ? "of" : "of at most", at.of,
                                      figures(at)));
  }

 private:
  std::optional<run_stage> stage_;
  std::chrono::steady_clock::time_point drawn_;
};

}  // namespace

progress_style progress_style_of_error_stream() {
  return ::isatty(STDERR_FILENO) == 1 ? progress_style::bar : progress_style::lines;
}

progress_listener make_progress(progress_style style) {
  switch (style) {
    case progress_style::quiet:
      break;
    case progress_style::lines:
      return print_line;
    case progress_style::bar:
      return [shown = bar()](const run_progress& at) mutable { shown.draw(at); };
  }
  return no_progress;
}

void finish_progress(progress_style style) {
  if (style == progress_style::bar) print_to_error_stream("\n");
}

}  // namespace varda
