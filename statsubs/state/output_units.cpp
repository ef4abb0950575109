// SPDX-License-Identifier: Apache-2.0
#include "statsubs/state/output_units.h"

#include <cstdio>
#include <map>

#include "statsubs/support/engine_log.h"

namespace statsubs {

namespace {

struct taker {
  line_sink sink;
  void* context;
};

std::map<int, taker>& takers() {
  static std::map<int, taker> all;
  return all;
}

}  // namespace

void take_unit(int unit, line_sink sink, void* context) {
  if (sink == nullptr)
    takers().erase(unit);
  else
    takers()[unit] = {sink, context};
}

void place_engine_log(std::string_view path) {
  support::place_log(path);
}

void write_line(int unit, std::string_view line) {
  const auto found = takers().find(unit);
  if (found != takers().end()) {
    found->second.sink(found->second.context, line.data(), static_cast<int>(line.size()));
    return;
  }
  std::fwrite(line.data(), 1, line.size(), stdout);
  std::fputc('\n', stdout);
}

}  // namespace statsubs
