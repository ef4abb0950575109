// SPDX-License-Identifier: Apache-2.0
#include "varda/support/text.h"

#include <fmt/format.h>

#include <algorithm>
#include <cctype>

namespace varda {

std::string lower_case(std::string_view text) {
  std::string folded(text);
  for (char& c : folded) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return folded;
}

bool equal_ignoring_case(std::string_view a, std::string_view b) {
  return std::equal(a.begin(), a.end(), b.begin(), b.end(), [](char x, char y) {
    return std::tolower(static_cast<unsigned char>(x)) ==
           std::tolower(static_cast<unsigned char>(y));
  });
}

std::string shortened(std::string_view text) {
  constexpr std::size_t most = 60;
  if (text.size() <= most) return std::string(text);
  std::size_t end = most;
  while (end > 0 && (static_cast<unsigned char>(text[end]) & 0xc0U) == 0x80U) --end;
  return std::string(text.substr(0, end)) + "...";
}

std::string count_of(std::int64_t n, std::string_view one, std::string_view several) {
  if (n != 1 && several.empty()) return fmt::format("{} {}s", n, one);
  return fmt::format("{} {}", n, n == 1 ? one : several);
}

// Unicode 15, table 3-7: the bytes that may follow a first one.
bool is_utf8(std::string_view text) {
  const auto byte = [&](std::size_t i) { return static_cast<unsigned char>(text[i]); };
  for (std::size_t i = 0; i < text.size();) {
    const unsigned first = byte(i);
    const std::size_t length = first < 0x80   ? 1
                               : first < 0xc2 ? 0
                               : first < 0xe0 ? 2
                               : first < 0xf0 ? 3
                               : first < 0xf5 ? 4
                                              : 0;
    if (length == 0 || i + length > text.size()) return false;
    for (std::size_t k = 1; k < length; ++k) {
      unsigned least = 0x80;
      unsigned most = 0xbf;
      if (k == 1 && first == 0xe0) least = 0xa0;
      if (k == 1 && first == 0xed) most = 0x9f;
      if (k == 1 && first == 0xf0) least = 0x90;
      if (k == 1 && first == 0xf4) most = 0x8f;
      if (byte(i + k) < least || byte(i + k) > most) return false;
    }
    i += length;
  }
  return true;
}

namespace {

// Characters, not bytes: a file's name may be in any language.
std::size_t width_of(std::string_view text) {
  std::size_t count = 0;
  for (const char c : text) count += (static_cast<unsigned char>(c) & 0xc0U) != 0x80U ? 1 : 0;
  return count;
}

std::string wrapped_line(std::string_view line, std::size_t indent) {
  std::string result;
  std::size_t begin = 0;
  std::size_t column = 0;
  bool fresh = true;  // nothing but an indent in the line so far
  while (begin < line.size()) {
    // A word with the blanks before it.
    const std::size_t word = line.find_first_not_of(' ', begin);
    if (word == std::string_view::npos) break;
    const std::size_t end = std::min(line.find(' ', word), line.size());
    const std::string_view piece = line.substr(begin, end - begin);
    if (!fresh && column + width_of(piece) > terminal_columns) {
      result += "\n" + std::string(indent, ' ');
      column = indent;
      result += line.substr(word, end - word);
      column += width_of(line.substr(word, end - word));
    } else {
      result += piece;
      column += width_of(piece);
    }
    fresh = false;
    begin = end;
  }
  return result;
}

}  // namespace

std::string wrapped(std::string_view text, std::size_t indent) {
  std::string result;
  for (std::size_t begin = 0; begin <= text.size();) {
    const std::size_t end = std::min(text.find('\n', begin), text.size());
    if (begin > 0) result += '\n';
    result += wrapped_line(text.substr(begin, end - begin), indent);
    begin = end + 1;
  }
  return result;
}

}  // namespace varda
