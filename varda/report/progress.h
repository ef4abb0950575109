// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "varda/run/fit.h"

namespace varda {

enum class progress_style { quiet, lines, bar };

// bar on a terminal, lines elsewhere.
progress_style progress_style_of_error_stream();

// Reports iterations on the error stream, so that standard output holds the summary alone. `title`
// names the work ("fit", "pilot pass").
progress_listener make_progress(progress_style style, const char* title);

// Ends a bar's line; nothing for the other styles.
void finish_progress(progress_style style);

}  // namespace varda
