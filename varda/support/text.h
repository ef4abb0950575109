// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace varda {

// ASCII case folding: column names and keywords are plain words.
std::string lower_case(std::string_view text);
bool equal_ignoring_case(std::string_view a, std::string_view b);

// The text, or its first 60 bytes (whole characters of them) and "..." where it is longer: what is
// shown of an input in a message.
std::string shortened(std::string_view text);

// "1 dose", "3 doses"; `several` is one + "s" unless it is given.
std::string count_of(std::int64_t n, std::string_view one, std::string_view several = {});

// Whether the bytes are well-formed UTF-8.
bool is_utf8(std::string_view text);

// Lines of at most this many characters are for a terminal.
inline constexpr std::size_t terminal_columns = 80;

// Words in lines of at most terminal_columns, without a line break at the end: the first line as it
// comes, the others behind `indent` blanks. A longer word has a line to itself; line breaks in the
// text stay.
std::string wrapped(std::string_view text, std::size_t indent);

}  // namespace varda
