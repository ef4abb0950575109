// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "varda/support/files.h"
#include "varda/support/finding.h"

namespace varda {

// A table of text fields with a header line. The separator is that of comma, semicolon and tab
// which the header has most of outside quotes; where it has none of them, fields are separated by
// runs of blanks. Fields may stand in double quotes; blanks around a field do not count; LF, CR LF
// and CR all end a line, a byte order mark is skipped, and empty lines and those that begin with #
// are passed over.
struct csv_table {
  struct record {
    int line = 0;  // in the file, from 1
    std::vector<std::string> fields;
  };
  std::string file;
  int header_line = 0;              // 1 unless lines that are passed over stand before it
  std::vector<std::string> header;  // a column without a name is "", and there may be several
  std::vector<record> records;      // each with as many fields as the header
};

// Reads a file, or throws bad_input: no such file, not plain text, nothing in it, a column name
// twice or not in UTF-8. Rows of another length, quotes that are not closed and fields of more than
// longest_field bytes are passed over and added to `refused_rows`.
inline constexpr std::size_t longest_field = 65536;
csv_table read_csv(const std::string& file, findings& refused_rows,
                   const file_access& text_of = read_from_disk);

// The names of the columns alone; throws the same.
std::vector<std::string> read_csv_header(const std::string& file,
                                         const file_access& text_of = read_from_disk);

// ".", an empty field and "NA" stand for a missing value.
bool is_missing(std::string_view field);

// The number that the whole field spells, in the C locale; nothing when it does not.
std::optional<double> to_number(std::string_view field);

}  // namespace varda
