// SPDX-License-Identifier: Apache-2.0
#include "varda/report/progress.h"

#include <fmt/format.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>

namespace varda {

namespace {

constexpr int bar_width = 30;
constexpr int line_every = 10;  // iterations
constexpr auto redraw_every = std::chrono::milliseconds(100);

void draw_bar(const iteration_record& at, int most, const char* title) {
  const int filled = bar_width * at.iteration / most;
  fmt::print(stderr, "\r{} [{:<{}}] {} (at most {})  -2LL {:.4f} ", title,
             std::string(static_cast<std::size_t>(filled), '#'), bar_width, at.iteration, most,
             at.minus2ll);
  std::fflush(stderr);
}

}  // namespace

progress_style progress_style_of_error_stream() {
  return ::isatty(STDERR_FILENO) == 1 ? progress_style::bar : progress_style::lines;
}

progress_listener make_progress(progress_style style, const char* title) {
  if (style == progress_style::quiet) return [](const iteration_record&, int) {};
  if (style == progress_style::lines)
    return [title](const iteration_record& at, int) {
      if (at.iteration == 1 || at.iteration % line_every == 0)
        fmt::print(stderr, "{} {:>4}  -2LL {:.4f}\n", title, at.iteration, at.minus2ll);
    };
  return [title, drawn = std::chrono::steady_clock::time_point()](const iteration_record& at,
                                                                  int most) mutable {
    const auto now = std::chrono::steady_clock::now();
    if (at.iteration > 1 && now - drawn < redraw_every) return;
    drawn = now;
    draw_bar(at, most, title);
  };
}

void finish_progress(progress_style style) {
  if (style == progress_style::bar) fmt::print(stderr, "\n");
}

}  // namespace varda
