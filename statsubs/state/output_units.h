// SPDX-License-Identifier: Apache-2.0
//
// Output units and the engine log. The library writes whole lines to numbered units; unit 6 is the
// run's standard output. A host may take any unit's lines; those of a unit that nobody took go to
// standard output. Messages that must survive the run go to a file, the engine log.
#pragma once

#include <string_view>

#include "statsubs/export.h"

namespace statsubs {

inline constexpr int standard_output_unit = 6;

// Receives one line without its line end; `line` is not terminated by a zero and lives for the
// call.
using line_sink = void (*)(void* context, const char* line, int length);

// Hands the lines of `unit` to `sink` from now on, with `context` passed through. A null sink gives
// the unit back to standard output.
STATSUBS_API void take_unit(int unit, line_sink sink, void* context);

// Has the engine log stand at `path` from now on, instead of "vardaengine.log" in the working
// directory, which an empty path brings back. A log that cannot be written costs its lines and
// nothing else.
STATSUBS_API void place_engine_log(std::string_view path);

// Writes one line to a unit.
STATSUBS_API void write_line(int unit, std::string_view line);

}  // namespace statsubs
