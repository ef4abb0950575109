// SPDX-License-Identifier: Apache-2.0
//
// The one writer of text records: free-format lines and the fixed layouts that some messages ask
// for. Lines come back without a line end.
#pragma once

#include <string>
#include <string_view>

#include "statsubs/support/array.h"

namespace statsubs::support {

// A free-format record: one leading blank, then the items with one blank between them. A text item
// stands as it is; an integer prints plainly; a real as the shortest decimal that reads back to the
// same double; a vector as its entries. A record without items is an empty line.
class record {
 public:
  record& text(std::string_view item);
  record& value(int item);
  record& value(double item);
  record& values(vector_view<const double> items);
  const std::string& line() const { return line_; }

 private:
  std::string line_;
};

// The shortest decimal that reads back to the same double; "nan", "inf" and "-inf" otherwise.
std::string shortest(double value);

// Fixed layouts. Each returns exactly `width` characters, all asterisks where the value does not
// fit. exponent_field: mantissa in [0.1, 1) with `digits` decimals, two exponent digits after "E",
// or three with the letter dropped ("0.1000-100"); zero has exponent +00.
std::string integer_field(int value, int width);
std::string exponent_field(double value, int width, int digits);

// `name` without its trailing blanks.
std::string_view trimmed(std::string_view name);

}  // namespace statsubs::support
