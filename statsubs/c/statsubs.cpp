// SPDX-License-Identifier: Apache-2.0
#include "statsubs/c/statsubs.h"

#include <cstdio>
#include <string_view>

#include "statsubs/c/guarded.h"
#include "statsubs/state/output_units.h"

namespace {

// A buffer of its own, so that reporting a failure cannot fail.
char last_message[512] = "";

}  // namespace

namespace statsubs::c {

int failed(statsubs_status status, const char* message) noexcept {
  std::snprintf(last_message, sizeof last_message, "%s", message);
  return status;
}

}  // namespace statsubs::c

const char* statsubs_last_error(void) {
  return last_message;
}

int statsubs_take_unit(int unit, statsubs_line_sink sink, void* context) {
  return statsubs::c::guarded([&] { statsubs::take_unit(unit, sink, context); });
}

int statsubs_place_engine_log(const char* path) {
  return statsubs::c::guarded([&] { statsubs::place_engine_log(path != nullptr ? path : ""); });
}

int statsubs_write_line(int unit, const char* line, int length) {
  if (length < 0)
    return statsubs::c::failed(STATSUBS_UNUSABLE_ARGUMENT, "a line of negative length");
  return statsubs::c::guarded([&] {
    statsubs::write_line(unit, std::string_view(line, static_cast<std::size_t>(length)));
  });
}
