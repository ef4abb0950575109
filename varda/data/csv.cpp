// SPDX-License-Identifier: Apache-2.0
#include "varda/data/csv.h"

#include <fmt/format.h>

#include <algorithm>
#include <charconv>
#include <unordered_map>
#include <utility>

#include "varda/support/text.h"

namespace varda {

namespace {

constexpr std::string_view byte_order_mark = "\xEF\xBB\xBF";

std::string whole_file(const std::string& file, const file_access& text_of) {
  std::optional<std::string> text = text_of(file);
  if (!text)
    throw bad_input({.code = "E-DATA-FILE",
                     .message = "the data file cannot be opened",
                     .remedy = "check data.file; a relative path is taken from the model file's "
                               "folder",
                     .file = file});
  // Spreadsheets save "Unicode text" in two bytes a character.
  if (text->find('\0') != std::string::npos)
    throw bad_input({.code = "E-DATA-FILE",
                     .message = "the data file is not plain text",
                     .remedy = "save it as CSV in UTF-8",
                     .file = file});
  return *std::move(text);
}

constexpr char runs_of_blanks = ' ';

// A separator in a column name ("conc, mg/L") must not decide, so the most frequent one does.
char separator_of(std::string_view header) {
  std::string unquoted;
  bool quoted = false;
  for (const char c : header) {
    if (c == '"') quoted = !quoted;
    if (!quoted) unquoted += c;
  }
  const auto count = [&](char c) { return std::count(unquoted.begin(), unquoted.end(), c); };
  char most = ',';
  for (const char c : {';', '\t'})
    if (count(c) > count(most)) most = c;
  return count(most) > 0 ? most : runs_of_blanks;
}

std::string_view without_blanks(std::string_view text) {
  const auto is_blank = [](char c) { return c == ' ' || c == '\t'; };
  while (!text.empty() && is_blank(text.front())) text.remove_prefix(1);
  while (!text.empty() && is_blank(text.back())) text.remove_suffix(1);
  return text;
}

// Takes the fields of one line apart; false when a quote is not closed.
bool split(std::string_view line, char separator, std::vector<std::string>& fields) {
  fields.clear();
  std::string field;
  bool quoted = false;
  bool was_quoted = false;
  const auto separates = [separator](char c) {
    return c == separator || (separator == runs_of_blanks && c == '\t');
  };
  const auto finish = [&] {
    if (separator == runs_of_blanks && !was_quoted && field.empty()) return;
    fields.push_back(was_quoted ? field : std::string(without_blanks(field)));
    field.clear();
    was_quoted = false;
  };
  for (std::size_t i = 0; i < line.size(); ++i) {
    const char c = line[i];
    if (quoted) {
      if (c != '"')
        field += c;
      else if (i + 1 < line.size() && line[i + 1] == '"')
        field += line[++i];
      else
        quoted = false;
    } else if (c == '"' && without_blanks(field).empty()) {
      field.clear();
      quoted = was_quoted = true;
    } else if (separates(c)) {
      finish();
    } else if (!was_quoted || c != ' ') {
      field += c;
    }
  }
  finish();
  return !quoted;
}

void check_header(const csv_table& table) {
  const auto refuse = [&](const std::string& message, const std::string& remedy, std::size_t at) {
    throw bad_input({.code = "E-DATA-HEADER",
                     .message = message,
                     .remedy = remedy,
                     .file = table.file,
                     .row = table.header_line,
                     .column = shortened(table.header[at])});
  };
  std::unordered_map<std::string, std::size_t> seen;
  for (std::size_t i = 0; i < table.header.size(); ++i) {
    if (table.header[i].empty()) continue;
    if (!is_utf8(table.header[i]))
      refuse(fmt::format("the name of column {} is not valid UTF-8", i + 1),
             "save the file as UTF-8", i);
    const auto [first, is_new] = seen.try_emplace(lower_case(table.header[i]), i);
    if (!is_new)
      refuse(fmt::format("the column name stands twice in the header, as columns {} and {}",
                         first->second + 1, i + 1),
             "rename one of the two", i);
  }
}

// Takes the next line off `rest`.
std::string_view next_line(std::string_view& rest) {
  const std::size_t end = std::min(rest.find_first_of("\r\n"), rest.size());
  const std::string_view line = rest.substr(0, end);
  rest.remove_prefix(end);
  rest.remove_prefix(rest.starts_with("\r\n") ? 2 : std::min<std::size_t>(rest.size(), 1));
  return line;
}

}  // namespace

namespace {

// Decimal commas in a file that commas separate make rows longer.
std::string remedy_of_length(std::size_t fields, const csv_table& table, char separator) {
  if (separator == ',' && fields > table.header.size())
    return "if its numbers have decimal commas, write points; '.' stands for a missing value";
  return "add or remove separators; '.' stands for a missing value";
}

// Reads the header, and the records unless it alone is wanted.
csv_table read_table(const std::string& file, findings& refused_rows, const file_access& text_of,
                     bool header_alone) {
  const std::string content = whole_file(file, text_of);
  std::string_view rest = content;
  if (rest.starts_with(byte_order_mark)) rest.remove_prefix(byte_order_mark.size());

  csv_table table;
  table.file = file;
  if (!header_alone)
    table.reserve(content.size(),
                  static_cast<std::size_t>(std::count(content.begin(), content.end(), '\n')));
  char separator = ',';
  std::vector<std::string> fields;
  const auto refuse = [&](int line, const std::string& message, const std::string& remedy) {
    refused_rows.push_back(
        {.code = "E-DATA-ROW", .message = message, .remedy = remedy, .file = file, .row = line});
  };
  for (int line = 1; !rest.empty() && !(header_alone && !table.header.empty()); ++line) {
    const std::string_view text = next_line(rest);
    if (without_blanks(text).empty() || without_blanks(text).front() == '#') continue;
    const bool is_header = table.header.empty();
    if (is_header) separator = separator_of(text);
    const bool whole = split(text, separator, fields);
    const auto is_long = [](const std::string& field) { return field.size() > longest_field; };
    if (!whole || std::any_of(fields.begin(), fields.end(), is_long)) {
      if (whole)
        refuse(line, fmt::format("a field is longer than {} bytes", longest_field),
               "shorten it, or close the quote before it");
      else
        refuse(line, "a quote is opened and not closed",
               "close the quote; a field must not run over several lines");
      if (is_header) throw bad_input(refused_rows.back());
    } else if (is_header) {
      table.header = fields;
      table.header_line = line;
      check_header(table);
    } else if (fields.size() != table.header.size()) {
      refuse(line,
             fmt::format("the row has {} where the header has {}",
                         count_of(std::ssize(fields), "field"), table.header.size()),
             remedy_of_length(fields.size(), table, separator));
    } else {
      table.add(line, fields);
    }
  }
  if (table.header.empty())
    throw bad_input({.code = "E-DATA-EMPTY",
                     .message = "the data file is empty",
                     .remedy = "it needs a header line with column names, then records",
                     .file = file});
  return table;
}

}  // namespace

csv_table::record csv_table::at(std::size_t index) const {
  const place& own = places_[index];
  csv_table::record result{own.line, {}};
  result.fields.reserve(columns_);
  const char* from = text_.data() + own.begin;
  for (std::size_t k = 0; k < columns_; ++k) {
    result.fields.emplace_back(from);
    from += result.fields.back().size() + 1;
  }
  return result;
}

std::string_view csv_table::field(std::size_t index, std::size_t column) const {
  std::string_view found(text_.data() + places_[index].begin);
  for (std::size_t k = 0; k < column; ++k) found = found.data() + found.size() + 1;
  return found;
}

template <class Text>
void csv_table::append(int line, const std::vector<Text>& fields) {
  columns_ = fields.size();
  places_.push_back({text_.size(), line});
  for (const Text& field : fields) {
    text_ += field;
    text_ += '\0';
  }
}

void csv_table::add(int line, const std::vector<std::string>& fields) {
  append(line, fields);
}

void csv_table::add(int line, const std::vector<std::string_view>& fields) {
  append(line, fields);
}

void csv_table::reserve(std::size_t bytes, std::size_t records) {
  text_.reserve(bytes);
  places_.reserve(records);
}

csv_table read_csv(const std::string& file, findings& refused_rows, const file_access& text_of) {
  return read_table(file, refused_rows, text_of, false);
}

std::vector<std::string> read_csv_header(const std::string& file, const file_access& text_of) {
  findings refused_rows;
  return read_table(file, refused_rows, text_of, true).header;
}

bool is_missing(std::string_view field) {
  return field.empty() || field == "." || equal_ignoring_case(field, "NA");
}

std::optional<double> to_number(std::string_view field) {
  if (field.starts_with('+') && !field.starts_with("+-")) field.remove_prefix(1);
  double value = 0.0;
  const char* end = field.data() + field.size();
  const auto parsed = std::from_chars(field.data(), end, value);
  if (parsed.ec != std::errc() || parsed.ptr != end) return std::nullopt;
  return value;
}

}  // namespace varda
