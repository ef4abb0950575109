// SPDX-License-Identifier: Apache-2.0
#include "varda/data/levels.h"

#include <cmath>
#include <cstdint>
#include <optional>

#include "varda/data/csv.h"

namespace varda {

namespace {

constexpr double first_text_level = 0x1p52;
constexpr double behind_text_levels = 0x1p53;

// FNV-1a, its upper half folded into the bits that a double has room for.
double spread(std::string_view text) {
  std::uint64_t hash = 0xcbf29ce484222325U;
  for (const char c : text) {
    hash ^= static_cast<unsigned char>(c);
    hash *= 0x100000001b3U;
  }
  hash ^= hash >> 52U;
  return static_cast<double>(hash & 0xfffffffffffffU);
}

}  // namespace

double level_number(std::string_view text) {
  const std::optional<double> number = to_number(text);
  if (number && std::isfinite(*number)) return *number;
  return first_text_level + spread(text);
}

bool is_text_level(double value) {
  return value >= first_text_level && value < behind_text_levels;
}

}  // namespace varda
