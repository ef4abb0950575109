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
//
// The records stand in one text and are taken apart when they are asked for: a string for each
// field would be many times the size of the file.
class csv_table {
 public:
  struct record {
    int line = 0;  // in the file, from 1
    // As many as the header has; they are the table's, and good until it is changed or moved.
    std::vector<std::string_view> fields;
  };
  std::string file;
  int header_line = 0;              // 1 unless lines that are passed over stand before it
  std::vector<std::string> header;  // a column without a name is "", and there may be several

  std::size_t records() const { return places_.size(); }
  std::size_t bytes() const { return text_.size(); }  // of all fields and what stands between them
  // Records count from 0 in the order of the file.
  record at(std::size_t index) const;
  std::string_view field(std::size_t index, std::size_t column) const;

  // Adds a record. No field holds a zero byte, and every record has the same number of them.
  void add(int line, const std::vector<std::string>& fields);
  void add(int line, const std::vector<std::string_view>& fields);
  // Makes room for so many bytes of fields, a byte behind each of them, and so many records.
  void reserve(std::size_t bytes, std::size_t records);

 private:
  struct place {
    std::size_t begin;
    int line;
  };
  template <class Text>
  void append(int line, const std::vector<Text>& fields);

  std::string text_;  // the fields, each with a zero byte behind it
  std::vector<place> places_;
  std::size_t columns_ = 0;  // of the records: the header may grow before they do
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
