// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "varda/support/progress.h"

namespace varda {

enum class progress_style { quiet, lines, bar };

// bar on a terminal, lines elsewhere.
progress_style progress_style_of_error_stream();

// Shows the steps on the error stream, so that standard output holds the summary alone.
progress_listener make_progress(progress_style style);

// Ends a bar's line; nothing for the other styles.
void finish_progress(progress_style style);

}  // namespace varda
