// SPDX-License-Identifier: Apache-2.0
#include "statsubs/support/engine_log.h"

#include <string>

namespace statsubs::support {

namespace {

constexpr const char* default_place = "vardaengine.log";

std::string& place() {
  static std::string path = default_place;
  return path;
}

}  // namespace

void place_log(std::string_view path) {
  place() = path.empty() ? default_place : path;
}

engine_log::engine_log(position where)
    : file_(std::fopen(place().c_str(), where == position::append ? "a" : "w")) {}

engine_log::~engine_log() {
  if (file_ != nullptr) std::fclose(file_);
}

bool engine_log::write(std::string_view line) {
  if (file_ == nullptr) return false;
  const bool written = std::fwrite(line.data(), 1, line.size(), file_) == line.size();
  return written && std::fputc('\n', file_) != EOF && std::fflush(file_) == 0;
}

}  // namespace statsubs::support
